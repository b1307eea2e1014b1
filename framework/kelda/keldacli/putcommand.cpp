#include "putcommand.h"

#include "clisession.h"
#include "commandsupport.h"
#include "putplan.h"
#include "queryoptions.h"
#include "uploadqueue.h"

#include "keldaclient.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <QElapsedTimer>

using namespace Kelda;

namespace KeldaCli {

namespace {

const QString kRecursive = QStringLiteral("recursive");
const QString kGroupPerFolder = QStringLiteral("group-per-folder");
const QString kType = QStringLiteral("type");
const QString kName = QStringLiteral("name");
const QString kVersion = QStringLiteral("version");
const QString kComment = QStringLiteral("comment");
const QString kDetail = QStringLiteral("detail");
const QString kDays = QStringLiteral("lifecycle-days");

constexpr unsigned int kDefaultLifeCycleDays = 30;

// What the options say about the groups to create.
struct GroupSettings
{
    FileType type = FT_Unknown;
    unsigned int days = kDefaultLifeCycleDays;
};

ExitCode readGroupSettings(const QCommandLineParser &parser, Session &session, GroupSettings &settings)
{
    if (parser.isSet(kType) && !parseFileType(parser.value(kType), settings.type))
        return session.fail(ExitUsage, QStringLiteral("unknown file type '%1'").arg(parser.value(kType)));
    if (parser.isSet(kDays)) {
        bool ok = false;
        settings.days = parser.value(kDays).toUInt(&ok);
        if (!ok)
            return session.fail(ExitUsage, QStringLiteral("--%1 takes a number of days").arg(kDays));
    }
    return ExitOk;
}

PutPlan::Layout layoutOf(const QCommandLineParser &parser)
{
    if (parser.isSet(kGroupPerFolder))
        return PutPlan::Layout::GroupPerFolder;
    return parser.isSet(kRecursive) ? PutPlan::Layout::OneGroup : PutPlan::Layout::Files;
}

void printPlan(const PutPlan &plan, const GroupSettings &settings, Session &session)
{
    for (const PutPlan::Group &group : plan.groups()) {
        session.out() << QStringLiteral("would create group \"%1\" (%2, %3, %4)\n")
                             .arg(group.name, FileTypeManager::GetText(settings.type),
                                  countText(qint64(group.files.size()), "file"), sizeText(group.bytes));
        for (const PutPlan::File &file : group.files)
            session.out() << QStringLiteral("  %1 as %2\n").arg(file.source, file.name);
    }
}

ExitCode createGroups(const QCommandLineParser &parser, const PutPlan &plan, const GroupSettings &settings,
                      Session &session, std::vector<UploadQueue::Item> &items)
{
    KeldaClient &client = session.client();
    for (const PutPlan::Group &group : plan.groups()) {
        QElapsedTimer timer;
        timer.start();
        QString directory;
        const QString guid =
            client.CreateFileGroup(parser.value(kVersion), QDateTime::currentDateTime().addDays(settings.days),
                                   parser.value(kDetail), parser.value(kComment), settings.type, quint64(group.bytes),
                                   group.name, directory);
        if (guid.isEmpty())
            return session.blockingFailure();
        session.detail(QStringLiteral("created group \"%1\" as %2 (%3 ms)").arg(group.name, guid).arg(timer.elapsed()));
        unsigned int fileId = 0;
        for (const PutPlan::File &file : group.files)
            items.push_back({file.source, guid, directory, file.name, ++fileId, file.size});
    }
    return ExitOk;
}

} // namespace

void putOptions(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("FILE"),
                                 QStringLiteral("Local files to store as one file group; folders with -r."),
                                 QStringLiteral("FILE..."));
    parser.addOption({{QStringLiteral("r"), kRecursive},
                      QStringLiteral("Store the files of folders, at any depth, in one group. Each file keeps "
                                     "its own name, so no two may share one.")});
    parser.addOption({kGroupPerFolder,
                      QStringLiteral("With folders: one group for each folder that holds files, named by its "
                                     "path from the given folder on (whose name --name replaces).")});
    parser.addOption({{QStringLiteral("t"), kType},
                      QStringLiteral("File type: a number or its text, e.g. 8 or \"Scan Recording\" (default 0)."),
                      QStringLiteral("TYPE")});
    parser.addOption({{QStringLiteral("n"), kName},
                      QStringLiteral("File group name (default: the first file's or folder's name)."),
                      QStringLiteral("NAME")});
    parser.addOption({kVersion, QStringLiteral("Version text."), QStringLiteral("VERSION")});
    parser.addOption({kComment, QStringLiteral("Comment."), QStringLiteral("TEXT")});
    parser.addOption({kDetail, QStringLiteral("Detail text."), QStringLiteral("TEXT")});
    parser.addOption({{QStringLiteral("days"), kDays},
                      QStringLiteral("Life cycle in days from now (default %1).").arg(kDefaultLifeCycleDays),
                      QStringLiteral("DAYS")});
    addJobsOption(parser);
    addDryRunOption(parser);
}

ExitCode runPut(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 1, -1))
        return code;
    GroupSettings settings;
    if (const ExitCode code = readGroupSettings(parser, session, settings))
        return code;
    int jobs = 0;
    if (const ExitCode code = jobsOption(parser, session, jobs))
        return code;
    PutPlan plan;
    if (!plan.build(parser.positionalArguments(), layoutOf(parser), parser.value(kName)))
        return session.fail(plan.errorCode(), plan.errorText());
    if (parser.isSet(kDryRunOption)) {
        printPlan(plan, settings, session);
        return ExitOk;
    }
    if (const ExitCode code = session.connect())
        return code;

    QElapsedTimer timer;
    timer.start();
    std::vector<UploadQueue::Item> items;
    if (const ExitCode code = createGroups(parser, plan, settings, session, items))
        return code;
    UploadQueue queue(session, jobs, std::move(items), plan.totalBytes());
    const ExitCode code = queue.run();
    if (code == ExitOk)
        session.inform(QStringLiteral("stored %1 (%2) in %3 in %4 s")
                           .arg(countText(plan.fileCount(), "file"), sizeText(plan.totalBytes()),
                                countText(qint64(plan.groups().size()), "group"))
                           .arg(double(timer.elapsed()) / 1000.0, 0, 'f', 2));
    return code;
}

} // namespace KeldaCli
