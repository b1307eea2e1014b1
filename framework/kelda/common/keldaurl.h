#pragma once

#include "keldacommonglobal.h"

#include <QDateTime>
#include <QString>
#include <QUrl>

namespace Kelda {

// Names an archived file as kelda:///<guid>/<file id>, or a whole file group
// as kelda:///<guid>.
class KELDACOMMON_EXPORT KeldaUrl : public QUrl
{
public:
    KeldaUrl() = default;
    KeldaUrl(const QUrl &url);
    // "file://C:/..." (a drive letter after two slashes) is read as the local
    // file "file:///C:/...".
    explicit KeldaUrl(const QString &url);
    KeldaUrl(const KeldaUrl &other) = default;
    KeldaUrl(KeldaUrl &&other) = default;
    KeldaUrl &operator=(const KeldaUrl &other) = default;
    KeldaUrl &operator=(KeldaUrl &&other) = default;
    KeldaUrl &operator=(const QUrl &url);

    static QString keldaScheme();
    static QUrl fromKeldaGuid(const QString &guid);
    static QUrl fromKeldaIds(const QString &guid, unsigned int fileId);

    bool isKeldaUrl() const;
    // Exactly two path parts; a third part makes this false although
    // toKeldaFileId() still reads the second.
    bool hasKeldaFileId() const;
    QString toKeldaGuid() const;
    unsigned int toKeldaFileId() const;
    bool isLocalFile() const;
};

// <basePath>/yyyy/MM/dd/hh/<guid>/<name>/ as an absolute native path with a
// trailing separator. The directory is not created.
KELDACOMMON_EXPORT QString CreatePath(const QString &basePath, const QString &guid,
                                      const QString &name, const QDateTime &time);
// The same at the current UTC time.
KELDACOMMON_EXPORT QString CreatePath(const QString &basePath, const QString &guid,
                                      const QString &name);

// A new random GUID: 36 lower-case characters, no braces. Also used as
// request id.
KELDACOMMON_EXPORT QString CreateGuid();

} // namespace Kelda
