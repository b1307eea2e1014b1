#pragma once

#include "keldacommonglobal.h"

#include <QDateTime>
#include <QString>
#include <QUrl>

/*!
    \file keldaurl.h
    \brief Archive URLs, the local path of a new file group, and GUIDs.
*/

namespace Kelda {

/*!
    \class Kelda::KeldaUrl
    \brief A URL that names an archived file or a whole file group.

    An archived file is "kelda:///<guid>/<file id>", a file group
    "kelda:///<guid>": scheme "kelda", no authority, the group's GUID as the
    first path section and the file id, in decimal, as the second. KeldaUrl
    adds no data to QUrl; it only reads and builds this form, and it tells
    an archive URL from a local file's URL, so that one value can carry
    either (KeldaFileDialog::GetOpenUrl()).

    A value type, implicitly shared through QUrl; every function is
    reentrant.
*/
class KELDACOMMON_EXPORT KeldaUrl : public QUrl
{
public:
    //! Constructs an empty URL.
    KeldaUrl() = default;
    //! Constructs a copy of \a url.
    KeldaUrl(const QUrl &url);
    /*!
        Parses \a url in tolerant mode. A local file written with two slashes
        before a drive letter ("file://C:/data/x.bin") is read as
        "file:///C:/data/x.bin".
    */
    explicit KeldaUrl(const QString &url);
    //! Constructs a copy of \a other.
    KeldaUrl(const KeldaUrl &other) = default;
    //! Move-constructs from \a other.
    KeldaUrl(KeldaUrl &&other) = default;
    //! Assigns \a other to this URL.
    KeldaUrl &operator=(const KeldaUrl &other) = default;
    //! Move-assigns \a other to this URL.
    KeldaUrl &operator=(KeldaUrl &&other) = default;
    //! Assigns \a url to this URL; assigning a URL to itself changes nothing.
    KeldaUrl &operator=(const QUrl &url);
    //! Swaps this URL with \a other. Never fails.
    void swap(KeldaUrl &other) noexcept { QUrl::swap(other); }

    //! Returns the scheme of archive URLs, "kelda".
    static QString keldaScheme();
    //! Returns the URL of the whole file group \a guid, "kelda:///<guid>".
    static QUrl fromKeldaGuid(const QString &guid);
    /*!
        Returns the URL of file \a fileId of group \a guid,
        "kelda:///<guid>/<file id>".
    */
    static QUrl fromKeldaIds(const QString &guid, unsigned int fileId);

    /*!
        Returns true when the scheme is "kelda" and the path holds at least
        one non-empty section (the GUID).
    */
    bool isKeldaUrl() const;
    /*!
        Returns true when the path has exactly two sections. A third section
        makes this false, although toKeldaFileId() still reads the second.
    */
    bool hasKeldaFileId() const;
    //! Returns the first path section, the GUID, or an empty string.
    QString toKeldaGuid() const;
    /*!
        Returns the second path section as a decimal number; 0 when there is
        none or it is not a number.
    */
    unsigned int toKeldaFileId() const;
    //! Returns true when the scheme is "file".
    bool isLocalFile() const;
};

/*!
    \relates KeldaUrl
    Returns the local directory of a new file group,
    "<basePath>/yyyy/MM/dd/hh/<guid>/<name>/", the date and hour taken from \a time
    in its own time spec, cleaned, made absolute (relative to the current
    directory) and given a trailing separator, all in native separators.

    The directory is not created.
*/
KELDACOMMON_EXPORT QString CreatePath(const QString &basePath, const QString &guid, const QString &name,
                                      const QDateTime &time);
/*!
    \relates KeldaUrl
    \overload
    Uses the current UTC time.
*/
KELDACOMMON_EXPORT QString CreatePath(const QString &basePath, const QString &guid, const QString &name);

/*!
    \relates KeldaUrl
    Returns a new random GUID in lower case, 36 characters with hyphens and
    without braces. It also serves as request id. Thread-safe.
*/
KELDACOMMON_EXPORT QString CreateGuid();

} // namespace Kelda

Q_DECLARE_SHARED(Kelda::KeldaUrl)
