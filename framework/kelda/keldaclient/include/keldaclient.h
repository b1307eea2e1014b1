#pragma once

#include "keldaclientglobal.h"

#include "filegroupdata.h"
#include "filetype.h"
#include "keldaerror.h"
#include "keldaurl.h"

#include <QDateTime>
#include <QObject>
#include <QScopedPointer>
#include <QString>
#include <QStringList>

QT_BEGIN_NAMESPACE
class QWidget;
QT_END_NAMESPACE

/*!
    \file keldaclient.h
    \brief The client object through which an application uses the archive.
*/

namespace Kelda {

class FileQuery;
class KeldaClientPrivate;

/*!
    \class Kelda::KeldaClient
    \brief The facade through which an application stores files in, and
    fetches files from, the archive server.

    A client talks to one server over one TCP connection. Its constructor
    returns at once: it starts a worker thread ("commandSenderThread") that
    connects in the background, retries every 5 s while the server cannot be
    reached, and reconnects by itself after a lost connection. connected()
    reports that the server answered the first request of a connection;
    until then, and after disconnected(), every operation fails at once.
    Without a configured server (IsKeldaAvailable() false) the client starts
    nothing, and every operation fails at once as well.

    Every operation exists in a blocking form, an asynchronous form, or both:

    \li A blocking form sends its request and waits in the calling thread,
        without running its event loop, until the reply arrives, the
        connection drops, or 60 s have passed; then it returns the reply's
        result. A late reply is not cancelled: its signal still arrives.
    \li An asynchronous form returns at once with the request id (the
        creating operations with the new group's GUID instead); the result
        arrives later with the signal of that command, whose first argument
        is that id.

    Blocking and asynchronous requests alike end in their command's signal.

    Nothing throws. A failure is a result (an empty string or list, 0,
    false) plus a trace. After a reply, GetError() holds the error code the
    server sent with it (KE_NoError on success). The precondition checks
    leave it as follows: KE_NotConnected when the connection is not up
    (trace "<operation>: no commandsender available"), and no change when no
    server is configured ("no kelda available"; GetError() is then always
    KE_NoError). A blocking call that ran out of time or lost its
    connection returns its failure result and leaves GetError() as it was
    before the call, normally KE_NoError: an empty result together with
    KE_NoError means that no reply came. The error is one state per client,
    set by whichever reply came last, asynchronous ones included.

    \section threads Threads
    Create a client and call its functions in one thread, normally the GUI
    thread; that thread needs a running event loop to receive signals. Every
    signal is emitted in that thread, queued from the worker thread, never
    during a blocking call. The reply is parsed, and the blocking caller
    woken, on the worker thread; the socket has a thread of its own.

    \section tls Encrypted connections
    Without TLS configuration the client speaks plain TCP, as the protocol
    always did. With "TlsCaFile" in the group "KELDA" (or SetTlsFiles()) it
    speaks TLS 1.2 or later and trusts only a server whose certificate that
    authority signed and whose name or address the certificate names;
    "TlsCertFile" and "TlsKeyFile" add the client's own certificate. A
    server that fails verification is traced with the reason and the
    connection closed; blocking calls then fail at once, as for any lost
    connection, and the client keeps trying every 5 seconds. Both are
    additions to the original interface.

    \section ownership Ownership
    The client owns its worker threads and everything on them. The
    destructor stops them and returns after about a second at most, even
    when one hangs. Objects that take a client pointer
    (KeldaFile, FileSelectDialog, ClientTreeModel) do not own it.

    \section connection Watching the connection
    The client connects in the background and reconnects by itself, so an
    application that needs the server watches the connection rather than
    making it. IsConnected() tells the state at any moment; connected() and
    disconnected() report each change, in the client's thread, and
    WaitForConnected() blocks until the connection is up. WaitForConnected()
    and this way of watching the connection are additions to the original
    interface. A program that must not start before the server answers, a
    command-line tool for instance, calls WaitForConnected() after
    constructing the client; an interactive one connects to connected() and
    disconnected() to enable and disable what needs the server.

    \section config Configuration
    The server comes from the group "KELDA" of the configuration ("ServerHost",
    "XmlPort", "UseUtc", "CompressionRate"), read once per process. The
    constructors that take a host and port change it for every client the
    process makes afterwards.

    \section names Names kept for compatibility
    The signal copyForeignFileGroupProgess() is spelled so, as are the
    lower-case result signals such as deleteFileGroupSg(), getBasePath() and
    the "Tovin" names; they keep the names applications already use.
*/
class KELDACLIENT_EXPORT KeldaClient : public QObject
{
    Q_OBJECT

public:
    /*!
        Constructs a client for the configured server. Returns at once; the
        connection follows (connected()). Without a configured server no
        thread is started.
    */
    KeldaClient();
    /*!
        Constructs a client for the configured server, with a non-empty
        \a host replacing the configured host and a non-zero \a port the
        configured port, for every client of the process.
    */
    KeldaClient(const QString &host, quint16 port);
    /*!
        Constructs a client that always starts, with \a host and \a port as
        the process's server (also when none is configured), and sends
        \a application, \a user and \a teamMembership with every request. An
        empty \a application is replaced by the host application's name.
    */
    KeldaClient(const QString &host, quint16 port, const QString &application, const QString &user,
                const QString &teamMembership);
    /*!
        Stops the worker threads and destroys the client. Waits at most about
        a second for them; a thread that hangs is abandoned and takes its
        objects with it when it ends. Requests still under way are dropped
        without their signals.
    */
    ~KeldaClient() override;

    /*!
        Returns true when a server is configured ("ServerHost" is present in
        the group "KELDA") or a client was constructed with an explicit
        server. Reads the configuration on the first call.
    */
    static bool IsKeldaAvailable();
    //! Returns true when date-times travel to and from the server in UTC ("UseUtc").
    bool IsUseUtc() const;
    /*!
        Returns the compression level for message bodies ("CompressionRate");
        -1 is zlib's default. A stored 0 reads as -1.
    */
    static int GetCompressionRate();

    /*!
        Sets the TLS files of every client constructed afterwards in this
        process, over the keys "TlsCaFile", "TlsCertFile" and "TlsKeyFile"
        of the group "KELDA". An addition to the original interface, see
        \ref tls.

        \a caFile is the PEM certificate of the authority that must have
        signed the server's certificate; naming it switches TLS on. \a
        certFile and \a keyFile (PEM, the key unencrypted) are the client's
        own certificate, which tells a server that asks for one who the user
        is. An empty \a caFile returns to what the configuration says.
    */
    static void SetTlsFiles(const QString &caFile, const QString &certFile = QString(),
                            const QString &keyFile = QString());
    /*!
        Returns a new random GUID in lower case, 36 characters without braces;
        the same as Kelda::CreateGuid(). Thread-safe.
    */
    static QString CreateGuid();

    /*!
        Returns true when a server is configured, the connection is up and
        the server has answered its first request (connected() was emitted
        and disconnected() has not followed). See \ref connection.
    */
    bool IsConnected() const;
    /*!
        Waits until the client is connected, for at most \a msecs
        milliseconds (a negative value waits without limit). An addition to
        the original interface, see \ref connection.

        Returns true at once when IsConnected(), and false at once when the
        client has no server to connect to (IsKeldaAvailable() was false
        when it was constructed). Otherwise runs a local event loop until
        connected() is emitted or the time has passed, and returns
        IsConnected(). The loop delivers timers, network events and queued
        signals, this client's among them, but holds back user input until
        it returns. Call it in the client's thread.
    */
    bool WaitForConnected(int msecs = 30000);
    /*!
        Returns the error code of the last reply, or of the last failed
        connection check (KE_NotConnected); KE_NoError when no server is
        configured. See the class description for what each failure leaves.
    */
    KeldaError GetError() const;
    //! Returns the translated text of GetError() (KeldaErrorString::Get()).
    QString GetErrorString() const;
    //! Returns the server's host; empty when the client did not start.
    QString GetHost() const;
    //! Returns the server's port; 0 when the client did not start.
    quint16 GetPort() const;
    /*!
        Returns the storage base directory that the server reported when the
        connection came up; empty before. New file groups are made below it
        (CreatePath()), so it must be reachable from this machine; a path that
        does not exist here is traced and accepted.
    */
    QString getBasePath() const;
    /*!
        Sets the user sent with every later request. Does nothing without a
        configured server. Call it before issuing operations: it is not
        synchronised with requests under way.
    */
    void SetUser(const QString &user);
    //! Sets the application sent with every later request; as SetUser().
    void SetApplication(const QString &application);
    //! Sets the team membership sent with every later request; as SetUser().
    void SetTeamMembership(const QString &teamMembership);
    //! Does nothing: the client reconnects by itself. Kept for compatibility.
    void Reconnect();

    /*!
        Creates a file group and waits for the server (at most 60 s).

        Makes the local directory of the new group below getBasePath()
        (CreatePath() with \a fileGroupName and the current UTC hour) and
        writes it to \a localPath, then asks the server to create the group
        with \a version, end of life \a lifecycle, \a detail, \a comment,
        \a fileType and \a reservedStorage. An empty \a guid is replaced by a
        new one.

        Returns the group's GUID, or an empty string on failure; a reply with
        an error code fails too (GetError()). \a localPath is written whenever
        the preconditions held, also when the reply fails to come.
    */
    QString CreateFileGroup(const QString &version, const QDateTime &lifecycle, const QString &detail,
                            const QString &comment, FileType fileType, quint64 reservedStorage,
                            const QString &fileGroupName, QString &localPath, QString guid = QString());
    /*!
        Creates a file group as CreateFileGroup() does, without waiting.
        Returns the group's GUID (not a request id), or an empty string when
        nothing was sent; the result arrives with CreateFileGroupSg().
    */
    QString CreateFileGroupAsync(const QString &version, const QDateTime &lifecycle, const QString &detail,
                                 const QString &comment, FileType fileType, quint64 reservedStorage,
                                 const QString &fileGroupName, QString &localPath, QString guid = QString());
    /*!
        Creates a file group for a record of the Tovin subsystem \a subsystem,
        without waiting. The local directory is made from \a recordId and
        written, cleaned and with a trailing separator, to \a localPath. An
        empty \a guid is replaced by a new one.

        Returns the GUID, or an empty string when nothing was sent; the
        result arrives with CreateTovinFileGroupSg().
    */
    QString CreateTovinFileGroupAsync(const QString &subsystem, const QString &tovinId, const QString &recordId,
                                      const QString &version, const QString &detail, const QString &comment,
                                      FileType fileType, QString &localPath, QString guid = QString());
    /*!
        \overload
        Uses the subsystem "IpAddress".
    */
    QString CreateTovinFileGroupAsync(const QString &tovinId, const QString &recordId, const QString &version,
                                      const QString &detail, const QString &comment, FileType fileType,
                                      QString &localPath, QString guid = QString());

    /*!
        Adds the file \a filePath, which must already lie in the group's
        local directory, to the group \a guid and waits for the server (at
        most 60 s). Only the part after the last separator is sent.

        Returns the new file's id, or 0 on failure (GetError() tells a server
        error).
    */
    unsigned int AddFile(const QString &filePath, const QString &guid);
    /*!
        Adds a file as AddFile() does, with the file id \a fileId, without
        waiting. Returns the request id, or an empty string when nothing was
        sent; the result arrives with AddFileSg().
    */
    QString AddFileAsync(const QString &filePath, const QString &guid, int fileId);

    /*!
        Requests file \a fileId of group \a guid under a lock and waits for
        the server (at most 60 s). \a lock LOCK_Write asks for the write lock,
        any other value for the read lock.

        Returns the local path at which the file can be opened, or an empty
        string on failure (GetError()). Release the lock with CloseFile().
    */
    QString RequestFile(unsigned int fileId, const QString &guid, LockState lock);
    /*!
        \overload
        Takes group and file from \a url; a group URL without file id means
        file 1. Returns an empty string, sending nothing, for a URL that is
        not an archive URL.
    */
    QString RequestFile(const KeldaUrl &url, LockState lock);
    /*!
        Requests a file as RequestFile() does, without waiting. Returns the
        request id, or an empty string when nothing was sent; the path arrives
        with RequestFileSg().
    */
    QString RequestFileAsync(unsigned int fileId, const QString &guid, LockState lock);
    /*!
        \overload
        Takes group and file from \a url as RequestFile(const KeldaUrl &, LockState) does.
    */
    QString RequestFileAsync(const KeldaUrl &url, LockState lock);
    /*!
        Releases this client's lock on file \a fileId of group \a guid,
        without waiting; the outcome arrives with CloseFileSg().
    */
    void CloseFile(unsigned int fileId, const QString &guid);
    /*!
        \overload
        Does nothing for a URL that is not an archive URL.
    */
    void CloseFile(const KeldaUrl &url);
    /*!
        Deletes file \a fileId from group \a guid, without waiting. Returns
        the request id, or an empty string when nothing was sent; the outcome
        arrives with DeleteFileNameSg().
    */
    QString DeleteFileName(unsigned int fileId, const QString &guid);
    /*!
        \overload
        Returns an empty string for a URL that is not an archive URL.
    */
    QString DeleteFileName(const KeldaUrl &url);

    /*!
        Asks the server to move group \a guid to network storage, without
        waiting. Returns the request id, or an empty string when nothing was
        sent; the outcome arrives with MoveToNasSg().
    */
    QString MoveToNas(const QString &guid);
    /*!
        \overload
        Returns an empty string for a URL that is not an archive URL.
    */
    QString MoveToNas(const KeldaUrl &url);
    /*!
        Moves group \a guid to network storage as MoveToNas() does and waits
        for the reply (at most 60 s). Reports nothing: read GetError().
    */
    void MoveToNasSync(const QString &guid);

    //! Adds a reference of this application to group \a guid, without waiting; see AddReferenceSg().
    void AddReference(const QString &guid);
    /*!
        \overload
        Does nothing for a URL that is not an archive URL.
    */
    void AddReference(const KeldaUrl &url);
    //! Removes a reference of this application from group \a guid, without waiting; see RemoveReferenceSg().
    void RemoveReference(const QString &guid);
    /*!
        \overload
        Does nothing for a URL that is not an archive URL.
    */
    void RemoveReference(const KeldaUrl &url);
    //! Removes every reference from group \a guid, without waiting; see RemoveAllReferenceSg().
    void RemoveAllReferences(const QString &guid);
    /*!
        \overload
        Does nothing for a URL that is not an archive URL.
    */
    void RemoveAllReferences(const KeldaUrl &url);

    /*!
        Returns the names of the applications that hold references, waiting
        for the server (at most 60 s); an empty list on failure.
    */
    QStringList GetApplicationList();
    //! Asks for the application list without waiting; returns the request id. See GetApplicationListSg().
    QString GetApplicationListAsync();
    /*!
        Returns the names of the users known to the server, waiting for it
        (at most 60 s); an empty list on failure.
    */
    QStringList GetUserList();
    //! Asks for the user list without waiting; returns the request id. See GetUserListSg().
    QString GetUserListAsync();
    /*!
        Returns the files of group \a guid, waiting for the server (at most
        60 s): for each file its id in decimal followed by its name. An empty
        list on failure; GetError() tells a failure from an empty group.
    */
    QStringList GetFileList(const QString &guid);
    /*!
        \overload
        Returns an empty list for a URL that is not an archive URL.
    */
    QStringList GetFileList(const KeldaUrl &url);
    //! Asks for the files of group \a guid without waiting; returns the request id. See GetFileListSg().
    QString GetFileListAsync(const QString &guid);

    /*!
        Finds the file groups that match \a query, waiting for the server (at
        most 60 s).

        Returns the result table as one flat list: the 16 column headers of
        FileGroupData::GetHeaders(), then 16 values per group in the same
        order (FileGroupData::fromStringList() reads it back). \a count
        receives the number of columns, 16, not the number of groups. An
        empty list on failure.
    */
    QStringList QueryFiles(const FileQuery &query, unsigned int &count);
    /*!
        Finds file groups as QueryFiles() does, without waiting. \a count
        receives the number of columns, 16, at once. Returns the request id,
        or an empty string when nothing was sent; the table arrives with
        queryFileGroupsSg().
    */
    QString QueryFilesAsync(const FileQuery &query, unsigned int &count);
    /*!
        Asks for the metadata of group \a guid on behalf of \a application,
        without waiting. Returns the request id; the record arrives with
        QueryMetaDataSg().
    */
    QString QueryMetaDataAsync(const QString &guid, const QString &application);
    /*!
        Deletes group \a guid, without waiting. Returns the request id; the
        outcome arrives with deleteFileGroupSg().
    */
    QString DeleteFileGroupAsync(const QString &guid);
    /*!
        Asks the server to export the groups \a guids to \a target, without
        waiting. Returns the request id; the outcome arrives with
        exportArchiveSg().
    */
    QString ExportArchiveAsync(const QStringList &guids, const QString &target);
    /*!
        Asks the server to import the archive \a items, without waiting.
        Returns the request id; the outcome arrives with importArchiveSg().
    */
    QString ImportArchiveAsync(const QStringList &items);
    /*!
        Asks where a group, or one of its files, is stored remotely, without
        waiting. \a guidOrUrl is an archive URL or a bare GUID. Returns the
        request id; the answer arrives with getRemoteStorageLocationSg().
    */
    QString GetRemoteStorageLocationAsync(const QString &guidOrUrl);
    /*!
        Asks for the GUID of the group that holds the Tovin record \a guid,
        \a fileId, without waiting. Returns the request id; the answer arrives
        with getTovinFilegroupGuidSg().
    */
    QString GetTovinFilegroupGuidAsync(const QString &guid, const QString &fileId);
    /*!
        Returns what the archive recorded of each file of group \a guid,
        seven texts per file in this order: file id, name, size in bytes,
        digest algorithm ("SHA-256"), digest in lower-case hexadecimal, time
        of the last check (local time "yyyy-MM-dd hh:mm:ss", empty when the
        file was never read) and state ("ok", "mismatch", "missing" or
        "unverified"). Size, algorithm and digest are empty for a file not
        read yet. Waits up to 60 s; an empty list on failure, GetError()
        tells a failure from an empty group. A server without this command
        answers KE_UnknownReplyCommand with the text "not supported by this
        server". An addition to the original interface.
    */
    QStringList GetFileChecksums(const QString &guid);
    /*!
        Asks for the recorded checksums of group \a guid without waiting;
        returns the request id. The records arrive with GetFileChecksumsSg().
        An addition to the original interface.
    */
    QString GetFileChecksumsAsync(const QString &guid);
    /*!
        Has the server read every file of group \a guid again now, compare
        it with the digest recorded when it was added, and record the
        outcome. Returns the records as GetFileChecksums() does, with the
        fresh states. Waits up to 60 s, which a very large group may need
        more than: use VerifyFileGroupAsync() for those. An addition to the
        original interface.
    */
    QStringList VerifyFileGroup(const QString &guid);
    /*!
        Has the server verify group \a guid as VerifyFileGroup() does,
        without waiting; returns the request id. The records arrive with
        VerifyFileGroupSg(). An addition to the original interface.
    */
    QString VerifyFileGroupAsync(const QString &guid);
    /*!
        Asks for the location state of group \a guid and the progress of its
        move, without waiting. Returns the request id; the answer arrives with
        queryLocationStateProgressSg().
    */
    QString QueryLocationStateProgress(const QString &guid);
    /*!
        Asks whether group \a guid exists, without waiting. Returns the
        request id; the answer arrives with checkFileGroupExistsSg().
    */
    QString CheckFileGroupExists(const QString &guid);

    /*!
        Returns true when \a url names a group, or a file of a group, that the
        server knows. Fetches the group's file list and waits for it (at most
        60 s). False for a URL that is not an archive URL, on a server error,
        or when the group does not list the file id. A group URL without file
        id also counts as valid when no reply came in time.
    */
    bool IsValidURL(const KeldaUrl &url);

    /*!
        Lets the user pick an archived file in a quick-mode FileSelectDialog
        titled \a title over \a parent, offering the types of
        FileTypeManager. Runs modally; each query blocks up to 60 s.

        Returns true when the user accepted a file; then \a guid is its group.
        False on cancel, when the query failed, or when the dialog was
        accepted on a group row.

        \a fileId is \b not the picked file's id: it is the id the server
        lists for that file plus 1, as existing callers expect. The picked
        file's id is
        \code
        const unsigned int pickedId = fileId - 1;
        \endcode

        This member shows a dialog, so it is defined in keldaclientwidgets, not
        in keldaclientcore with the rest of the class: an application that
        calls it links keldaclientwidgets or keldaclient.
    */
    bool GetSelectedFile(QWidget *parent, const QString &title, QString &guid, unsigned int &fileId);
    /*!
        \overload
        Sets \a url to the choice as "kelda:///<guid>/<file id>", also after a
        cancel, then with an empty GUID and file id 0. Its file id, too, is the
        listed id plus 1; the URL of the picked file is
        \code
        const Kelda::KeldaUrl picked(Kelda::KeldaUrl::fromKeldaIds(url.toKeldaGuid(), url.toKeldaFileId() - 1));
        \endcode
    */
    bool GetSelectedFile(QWidget *parent, const QString &title, KeldaUrl &url);

signals:
    /*!
        Emitted when a connection is up and the server answered its first
        request; after each reconnection again. getBasePath() then holds the
        server's base directory.
    */
    void connected();
    //! Emitted when the connection drops; the client retries every 5 s.
    void disconnected();
    /*!
        Reports the reply to CreateFileGroup() or CreateFileGroupAsync():
        \a a_sGuid the group, \a a_sPathToUse the local directory to put its
        files in. Carries no error code: GetError() has the reply's.
    */
    void CreateFileGroupSg(QString a_sGuid, QString a_sPathToUse);
    /*!
        Reports the reply to CreateTovinFileGroupAsync(): \a a_sGuid the group,
        \a a_sPath its directory, \a a_iError a KeldaError code and
        \a a_sErrorString the server's text.
    */
    void CreateTovinFileGroupSg(QString a_sGuid, QString a_sPath, int a_iError, QString a_sErrorString);
    /*!
        Reports the reply to AddFile() or AddFileAsync() with the request id
        \a a_sRequestId: \a a_fileId the new file's id, 0 when the server sent
        none. Carries no error code: GetError() has the reply's.
    */
    void AddFileSg(QString a_sRequestId, unsigned int a_fileId);
    /*!
        Declared for compatibility; never emitted. Its arguments follow the
        pattern of AddFileSg() plus error code and text.
    */
    void AddTovinFileSg(QString a_sRequestId, unsigned int a_fileId, int a_iError, QString a_sErrorString);
    /*!
        Reports the application list for the request \a a_sRequestId:
        \a applicationList, \a a_iError a KeldaError code and \a a_sErrorString
        the server's text.
    */
    void GetApplicationListSg(QString a_sRequestId, QStringList applicationList, int a_iError, QString a_sErrorString);
    /*!
        Reports the file list of a group for the request \a a_sRequestId:
        \a fileList as GetFileList() returns it, \a a_iError and
        \a a_sErrorString.
    */
    void GetFileListSg(QString a_sRequestId, QStringList fileList, int a_iError, QString a_sErrorString);
    /*!
        Reports the user list for the request \a a_sRequestId: \a userList,
        \a a_iError and \a a_sErrorString.
    */
    void GetUserListSg(QString a_sRequestId, QStringList userList, int a_iError, QString a_sErrorString);
    //! Reports the outcome of DeleteFileName(): request id \a a_sRequestId, \a a_iError, \a a_sErrorString.
    void DeleteFileNameSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    /*!
        Reports the reply to RequestFile() or RequestFileAsync(): request id
        \a a_sRequestId, the local path \a a_sPath, \a a_iError and
        \a a_sErrorString.
    */
    void RequestFileSg(QString a_sRequestId, QString a_sPath, int a_iError, QString a_sErrorString);
    //! Reports the outcome of CloseFile(): request id \a a_sRequestId, \a a_iError, \a a_sErrorString.
    void CloseFileSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    //! Reports the outcome of MoveToNas(): request id \a a_sRequestId, \a a_iError, \a a_sErrorString.
    void MoveToNasSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    //! Reports the outcome of AddReference(): request id \a a_sRequestId, \a a_iError, \a a_sErrorString.
    void AddReferenceSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    //! Reports the outcome of RemoveReference(): request id \a a_sRequestId, \a a_iError, \a a_sErrorString.
    void RemoveReferenceSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    //! Reports the outcome of RemoveAllReferences(): request id \a a_sRequestId, \a a_iError, \a a_sErrorString.
    void RemoveAllReferenceSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    /*!
        Reports, on the server's own initiative, how far the copy of a group
        from a remote server has come: \a a_fProgress for the request
        \a a_sRequestId. The name is spelled so for compatibility.
    */
    void copyForeignFileGroupProgess(QString a_sRequestId, float a_fProgress);
    //! Reports the outcome of ExportArchiveAsync(): request id \a a_sRequestId, \a a_iError, \a a_sErrorString.
    void exportArchiveSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    //! Reports the outcome of ImportArchiveAsync(): request id \a a_sRequestId, \a a_iError, \a a_sErrorString.
    void importArchiveSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    /*!
        Reports the reply to QueryFiles() or QueryFilesAsync(): request id
        \a a_sRequestId, the table \a fileGroups as QueryFiles() returns it,
        \a a_iNumberOfFileGroups the number of columns (16, whatever its name
        says), \a a_iError and \a a_sErrorString.
    */
    void queryFileGroupsSg(QString a_sRequestId, QStringList fileGroups, int a_iNumberOfFileGroups, int a_iError,
                           QString a_sErrorString);
    /*!
        Reports the reply to QueryMetaDataAsync(): request id \a a_sRequestId,
        the record \a a_metaData, \a a_iError and \a a_sErrorString.
    */
    void QueryMetaDataSg(QString a_sRequestId, Kelda::FileGroupData a_metaData, int a_iError, QString a_sErrorString);
    //! Reports the outcome of DeleteFileGroupAsync(): request id \a a_sRequestId, \a a_iError, \a a_sErrorString.
    void deleteFileGroupSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    /*!
        Reports the reply to QueryLocationStateProgress(): request id
        \a a_sRequestId, the LocationState \a a_iLocationState, the progress
        \a a_dProgress of a move, \a a_iError and \a a_sErrorString.
    */
    void queryLocationStateProgressSg(QString a_sRequestId, int a_iLocationState, double a_dProgress, int a_iError,
                                      QString a_sErrorString);
    /*!
        Reports the reply to CheckFileGroupExists(): request id
        \a a_sRequestId, \a exists, \a a_iError and \a a_sErrorString.
    */
    void checkFileGroupExistsSg(QString a_sRequestId, bool exists, int a_iError, QString a_sErrorString);
    /*!
        Reports the reply to GetRemoteStorageLocationAsync(): request id
        \a a_sRequestId, the remote server's address \a a_remoteIp and the URL
        \a a_remoteUrl of the data there, \a a_iError and \a a_sErrorString.
    */
    void getRemoteStorageLocationSg(QString a_sRequestId, QString a_remoteIp, QString a_remoteUrl, int a_iError,
                                    QString a_sErrorString);
    /*!
        Reports the reply to GetTovinFilegroupGuidAsync(): request id
        \a a_sRequestId, the group \a a_guid, \a a_iError and \a a_sErrorString.
    */
    void getTovinFilegroupGuidSg(QString a_sRequestId, QString a_guid, int a_iError, QString a_sErrorString);
    /*!
        Reports the reply to GetFileChecksumsAsync(): request id
        \a a_sRequestId, the \a records as GetFileChecksums() returns them,
        \a a_iFields texts per file (7), \a a_iError and \a a_sErrorString.
        An addition to the original interface.
    */
    void GetFileChecksumsSg(QString a_sRequestId, QStringList records, int a_iFields, int a_iError,
                            QString a_sErrorString);
    /*!
        Reports the reply to VerifyFileGroupAsync(), with the same
        parameters as GetFileChecksumsSg(). An addition to the original
        interface.
    */
    void VerifyFileGroupSg(QString a_sRequestId, QStringList records, int a_iFields, int a_iError,
                           QString a_sErrorString);

private:
    Q_DECLARE_PRIVATE_D(d, KeldaClient)
    const QScopedPointer<KeldaClientPrivate> d;
    Q_PRIVATE_SLOT(d_func(), void SlotConnected(QString a_basePath))
    Q_PRIVATE_SLOT(d_func(), void SlotDisconnected())
    Q_PRIVATE_SLOT(d_func(), void EmitCreateFileGroupSg(QString a_sGuid, QString a_sPath))
    Q_PRIVATE_SLOT(d_func(), void EmitAddFileSg(QString a_sRequestId, unsigned int a_fileId))
};

} // namespace Kelda
