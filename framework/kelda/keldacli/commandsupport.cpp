#include "commandsupport.h"

#include "transferqueue.h"

#include <QLocale>
#include <QRegularExpression>

using namespace Kelda;

namespace KeldaCli {

const QString kDryRunOption = QStringLiteral("dry-run");
const QString kJobsOption = QStringLiteral("jobs");
const QString kUnnamedRequest = QStringLiteral("unnamed");

namespace {

constexpr int kDefaultJobs = 4;
// More than this only queues up on the server's single writer.
constexpr int kMaxJobs = 32;

} // namespace

bool isGuid(const QString &text)
{
    static const QRegularExpression guid(
        QStringLiteral("^[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{12}$"));
    return guid.match(text).hasMatch();
}

bool readTarget(const QString &text, KeldaUrl &url)
{
    if (isGuid(text)) {
        url = KeldaUrl::fromKeldaGuid(text);
        return true;
    }
    url = KeldaUrl(text);
    return url.isKeldaUrl() && isGuid(url.toKeldaGuid()) && (!url.hasKeldaFileId() || url.toKeldaFileId() > 0);
}

ExitCode expectArguments(const QCommandLineParser &parser, Session &session, int min, int max)
{
    const int count = parser.positionalArguments().size();
    if (count >= min && (max < 0 || count <= max))
        return ExitOk;
    const QString expected = min == max ? QString::number(min)
        : max < 0                       ? QStringLiteral("at least %1").arg(min)
                                        : QStringLiteral("%1 to %2").arg(min).arg(max);
    return session.fail(ExitUsage,
                        QStringLiteral("expected %1 argument(s), got %2; see --help").arg(expected).arg(count));
}

ExitCode guidArgument(const QCommandLineParser &parser, Session &session, QString &guid)
{
    if (const ExitCode code = expectArguments(parser, session, 1, 1))
        return code;
    guid = parser.positionalArguments().constFirst();
    if (!isGuid(guid))
        return session.fail(ExitUsage, QStringLiteral("'%1' is not a file group GUID").arg(guid));
    return ExitOk;
}

void addDryRunOption(QCommandLineParser &parser)
{
    parser.addOption({kDryRunOption, QStringLiteral("Say what would be done and change nothing in the archive.")});
}

void addJobsOption(QCommandLineParser &parser)
{
    parser.addOption({{QStringLiteral("j"), kJobsOption},
                      QStringLiteral("Copy up to N files at once, 1 to %1 (default %2); the server's answers for "
                                     "up to %3 times as many are awaited at once.")
                          .arg(kMaxJobs)
                          .arg(kDefaultJobs)
                          .arg(TransferQueue::kAheadPerJob),
                      QStringLiteral("N"),
                      QString::number(kDefaultJobs)});
}

ExitCode jobsOption(const QCommandLineParser &parser, Session &session, int &jobs)
{
    bool ok = false;
    jobs = parser.value(kJobsOption).toInt(&ok);
    if (!ok || jobs < 1 || jobs > kMaxJobs)
        return session.fail(
            ExitUsage, QStringLiteral("--jobs takes 1 to %1, not '%2'").arg(kMaxJobs).arg(parser.value(kJobsOption)));
    return ExitOk;
}

ExitCode queryMetaData(Session &session, const QString &guid, FileGroupData &group)
{
    Outcome outcome;
    const ExitCode code = request(
        session, &KeldaClient::QueryMetaDataSg,
        [&] { return session.client().QueryMetaDataAsync(guid, session.settings().application); },
        [&](const QString &expected, QString id, FileGroupData data, int error, QString text) {
            if (id != expected)
                return false;
            group = data;
            outcome = {error, text};
            return true;
        });
    if (code != ExitOk)
        return code;
    return outcome.error == KE_NoError ? ExitOk : session.serverError(outcome.error, outcome.text);
}

ExitCode requestChecksums(Session &session, const QString &guid, bool verify, std::vector<FileChecksum> &files,
                          Outcome &outcome)
{
    KeldaClient &client = session.client();
    QStringList records;
    const auto onReply = [&](const QString &expected, QString id, QStringList reply, int, int error, QString text) {
        if (id != expected)
            return false;
        records = reply;
        outcome = {error, text};
        return true;
    };
    const ExitCode code = verify
        ? request(
              session, &KeldaClient::VerifyFileGroupSg, [&] { return client.VerifyFileGroupAsync(guid); }, onReply)
        : request(
              session, &KeldaClient::GetFileChecksumsSg, [&] { return client.GetFileChecksumsAsync(guid); }, onReply);
    if (code == ExitOk)
        files = checksumRecords(guid, records);
    return code;
}

QString digestMismatchText(const QString &expected, const QByteArray &actual)
{
    return QStringLiteral("the copy differs from the archive and was removed\n  expected SHA-256: %1\n  "
                          "actual SHA-256:   %2")
        .arg(expected, QString::fromLatin1(actual));
}

QString sizeText(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1);
}

QString countText(qint64 count, const char *noun)
{
    return QStringLiteral("%1 %2%3")
        .arg(count)
        .arg(QLatin1String(noun))
        .arg(count == 1 ? QString() : QStringLiteral("s"));
}

} // namespace KeldaCli
