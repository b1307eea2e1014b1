#include "keldaurl.h"

#include <QDir>
#include <QRegularExpression>
#include <QUuid>

namespace Kelda {

namespace {

const QLatin1String kKeldaScheme("kelda");
const QLatin1String kFileScheme("file");
const QChar kPathSeparator = QLatin1Char('/');

// Qt refuses a path that starts with "//" when the authority is absent, so the
// "kelda:///<guid>" form is made from an empty (present) host and a path with
// one leading slash. The path sections are the same either way.
QStringList pathSections(const QUrl &url)
{
    return url.path(QUrl::FullyDecoded).split(kPathSeparator, Qt::SkipEmptyParts);
}

} // namespace

KeldaUrl::KeldaUrl(const QUrl &url)
    : QUrl(url)
{ }

KeldaUrl::KeldaUrl(const QString &url)
{
    static const QRegularExpression driveAfterTwoSlashes(QStringLiteral("^file://[a-zA-Z]:/"));
    QString text = url;
    if (driveAfterTwoSlashes.match(text).hasMatch())
        text.replace(QStringLiteral("file://"), QStringLiteral("file:///"));
    setUrl(text, QUrl::TolerantMode);
}

KeldaUrl &KeldaUrl::operator=(const QUrl &url)
{
    if (static_cast<const QUrl *>(this) != &url)
        QUrl::operator=(url);
    return *this;
}

QString KeldaUrl::keldaScheme()
{
    return kKeldaScheme;
}

QUrl KeldaUrl::fromKeldaGuid(const QString &guid)
{
    QUrl url;
    url.setScheme(kKeldaScheme);
    url.setHost(QStringLiteral(""));
    url.setPath(kPathSeparator + guid, QUrl::DecodedMode);
    return url;
}

QUrl KeldaUrl::fromKeldaIds(const QString &guid, unsigned int fileId)
{
    QUrl url = fromKeldaGuid(guid);
    url.setPath(url.path(QUrl::FullyDecoded) + kPathSeparator + QString::number(fileId), QUrl::DecodedMode);
    return url;
}

bool KeldaUrl::isKeldaUrl() const
{
    return scheme() == kKeldaScheme && !pathSections(*this).isEmpty();
}

bool KeldaUrl::hasKeldaFileId() const
{
    return pathSections(*this).size() == 2;
}

QString KeldaUrl::toKeldaGuid() const
{
    return pathSections(*this).value(0);
}

unsigned int KeldaUrl::toKeldaFileId() const
{
    return pathSections(*this).value(1).toUInt(nullptr, 10);
}

bool KeldaUrl::isLocalFile() const
{
    return scheme() == kFileScheme;
}

QString CreatePath(const QString &basePath, const QString &guid, const QString &name, const QDateTime &time)
{
    const QString datePart = time.toString(QStringLiteral("yyyy/MM/dd/hh"));
    const QString path = QDir::cleanPath(QStringLiteral("%1/%2/%3/%4/").arg(basePath, datePart, guid, name));
    return QDir::toNativeSeparators(QDir(path).absolutePath() + QDir::separator());
}

QString CreatePath(const QString &basePath, const QString &guid, const QString &name)
{
    return CreatePath(basePath, guid, name, QDateTime::currentDateTimeUtc());
}

QString CreateGuid()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

} // namespace Kelda
