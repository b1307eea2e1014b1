#pragma once

#include "keldaclientglobal.h"

#include "filetype.h"
#include "keldaerror.h"

#include <QFile>
#include <QScopedPointer>
#include <QString>

/*!
    \file keldafile.h
    \brief A file that lives in the archive but is used like a local QFile.
*/

namespace Kelda {

class KeldaClient;
class KeldaFilePrivate;

/*!
    \class Kelda::KeldaFile
    \brief A file that lives in the archive but is read and written like a
    local QFile.

    A KeldaFile is made in one of two ways. The create-new constructor makes
    a new file group for a local file and adds the file to it; the
    open-existing constructor names an archived file by its group's GUID and
    its file id. open() then asks the server for the file, under the write
    lock for any mode that writes and the read lock otherwise, and opens the
    local copy the server names; close() closes it and releases the lock.
    Once opened, the file keeps its local name: a second open() reopens the
    same copy without asking the server again.

    Without a configured server a KeldaFile is a plain QFile on the cleaned
    local path. With a server configured but the client not connected (or no
    client given), open() of an archived file fails, and the create-new
    constructor creates nothing.

    The destructor neither closes the file on the server nor releases its
    lock: call close() first. A group that this object created is handed to
    network storage (KeldaClient::MoveToNas()) when the object is destroyed.

    The client is not owned and may be null; it must outlive the file. Use a
    KeldaFile in the thread of its client. Every server call is one of the
    client's: the constructors and open() block for up to 60 s each
    (KeldaClient::CreateFileGroup(), KeldaClient::AddFile(),
    KeldaClient::RequestFile()); close() and the destructor do not wait.
    Failures are traced and kept as the last error (GetError()); nothing
    throws.
*/
class KELDACLIENT_EXPORT KeldaFile : public QFile
{
    Q_OBJECT

public:
    //! Constructs an empty file bound to \a client; IsEmpty() is true.
    explicit KeldaFile(KeldaClient *client);
    /*!
        Stores the local file \a name in the archive: creates a new file
        group (waiting up to 60 s) with \a version, an end of life
        \a lifeCycleDays days from now (local time), \a detail, \a comment,
        \a fileType and \a reservedStorage, named after the file's name (its
        last two "."-separated parts, so "a.b.c" gives "b.c"); copies the file
        into the group's directory; and adds it (up to 60 s more).

        A \a name without ".", "/" or "\" is taken for the GUID of an existing
        group instead, and nothing is created. Without a configured server
        the object is the local file \a name.

        On failure GetError() holds the client's error, or KE_AddFileFailed
        when the copy into the group's directory failed. When no reply to the
        group's creation came (in time, or before the connection was lost),
        it holds KE_ReplyTimeout; then GetGuid() stays empty and nothing more
        is sent, neither the file nor, at destruction, the move to network
        storage.
    */
    KeldaFile(KeldaClient *client, const QString &name, const QString &version, unsigned int &lifeCycleDays,
              const QString &detail, const QString &comment, FileType fileType, quint64 reservedStorage);
    /*!
        Names file \a fileId of the archived group \a nameOrGuid; nothing is
        sent until open(). A \a fileId of 0, or no configured server, makes
        \a nameOrGuid a local path instead (archived files count from 1).
    */
    KeldaFile(KeldaClient *client, const QString &nameOrGuid, unsigned int fileId);
    /*!
        Destroys the file. If this object created its group, asks the server
        to move it to network storage, without waiting; while the move runs
        the group cannot be requested (KeldaClient::QueryLocationStateProgress()
        tells when it is LS_Central again). Does not release a lock: call
        close() first.
    */
    ~KeldaFile() override;

    /*!
        Opens the file in \a mode. An archived file not opened before is first
        requested from the server (KeldaClient::RequestFile(), waiting up to
        60 s) under the write lock when \a mode contains QIODevice::WriteOnly,
        under the read lock otherwise.

        Returns false when the request fails (GetError() holds the client's
        error), when the client is missing or not connected, when there is
        no GUID, or when the local copy cannot be opened.
    */
    bool open(QIODevice::OpenMode mode) override;
    /*!
        Closes the local file and, with a configured server and a client,
        releases the lock on the server (KeldaClient::CloseFile(), without
        waiting). GetError() then holds the client's error.
    */
    void close() override;

    //! Returns the last error taken from the client or set by this file.
    KeldaError GetError() const;
    //! Returns the translated text of GetError().
    QString GetErrorString() const;
    //! Returns the id of the file in its group; 0 for a local file.
    unsigned int GetFileId();
    //! Returns the GUID of the group; empty for a local file.
    QString GetGuid();
    //! Returns "kelda:///<guid>/<file id>" for an archived file, else the local name.
    QString GetName();
    //! Returns true when the file names neither a group nor a local file.
    bool IsEmpty() const;

public slots:
    /*!
        Takes \a fileId as this file's id and emits fileSuccessfullyAdded()
        when \a requestId is that of this file's pending asynchronous add;
        ignores any other request. Shaped like KeldaClient::AddFileSg(), to
        which it can be connected.
    */
    void handleAddFileSignal(const QString &requestId, unsigned int fileId);

signals:
    //! Emitted by handleAddFileSignal(), in its caller's thread, with the new \a fileId.
    void fileSuccessfullyAdded(unsigned int fileId);

private:
    // A GUID contains none of ".", "/" and "\\"; a local file name does.
    bool IsFileName(const QString &s) const;

    Q_DECLARE_PRIVATE_D(d, KeldaFile)
    const QScopedPointer<KeldaFilePrivate> d;
};

} // namespace Kelda
