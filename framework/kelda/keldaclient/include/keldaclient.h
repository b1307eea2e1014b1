#pragma once

#include "keldaclientglobal.h"

#include "filegroupdata.h"
#include "filetype.h"
#include "keldaerror.h"
#include "keldaurl.h"

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>

class QWidget;

namespace Kelda {

class FileQuery;
class KeldaClientPrivate;

// The facade through which an application uses the archive server.
//
// The client starts a command sender on its own thread that connects (and
// reconnects) to the configured server. Every operation exists in a blocking
// form, which waits at most 60 s for the reply, and/or an asynchronous form,
// which returns a request id at once and reports through a signal. Failures
// are results (empty string or list, 0, false) plus a trace; the last error
// is read with GetError().
class KELDACLIENT_EXPORT KeldaClient : public QObject
{
    Q_OBJECT

public:
    class ClientConfig;

    // Uses the configured server, if any.
    KeldaClient();
    // A non-empty host and a non-zero port replace the configured ones, for
    // every client of the process.
    KeldaClient(const QString &host, quint16 port);
    // Always starts, with this server, application, user and team.
    KeldaClient(const QString &host, quint16 port, const QString &application, const QString &user,
                const QString &teamMembership);
    ~KeldaClient() override;

    // Whether a server is configured (or was given to a constructor).
    static bool IsKeldaAvailable();
    // Whether date-times travel to and from the server in UTC.
    bool IsUseUtc() const;
    // The compression level for message bodies; -1 is zlib's default.
    static int GetCompressionRate();
    // A new GUID: 36 lower-case characters, no braces.
    static QString CreateGuid();

    // The configuration all readers share: set by the first reader, replaced
    // by the first client, whose constructor may override host and port for
    // the whole process. Internal; applications use the functions above.
    static std::atomic<ClientConfig *> s_config;

    bool IsConnected() const;
    KeldaError GetError() const;
    QString GetErrorString() const;
    QString GetHost() const;
    quint16 GetPort() const;
    QString getBasePath() const;
    void SetUser(const QString &user);
    void SetApplication(const QString &application);
    void SetTeamMembership(const QString &teamMembership);
    // Kept for compatibility; reconnection is automatic.
    void Reconnect();

    QString CreateFileGroup(const QString &version, const QDateTime &lifecycle, const QString &detail,
                            const QString &comment, FileType fileType, quint64 reservedStorage,
                            const QString &fileGroupName, QString &localPath, QString guid = QString());
    QString CreateFileGroupAsync(const QString &version, const QDateTime &lifecycle, const QString &detail,
                                 const QString &comment, FileType fileType, quint64 reservedStorage,
                                 const QString &fileGroupName, QString &localPath, QString guid = QString());
    QString CreateTovinFileGroupAsync(const QString &subsystem, const QString &tovinId, const QString &recordId,
                                      const QString &version, const QString &detail, const QString &comment,
                                      FileType fileType, QString &localPath, QString guid = QString());
    QString CreateTovinFileGroupAsync(const QString &tovinId, const QString &recordId, const QString &version,
                                      const QString &detail, const QString &comment, FileType fileType,
                                      QString &localPath, QString guid = QString());

    unsigned int AddFile(const QString &filePath, const QString &guid);
    QString AddFileAsync(const QString &filePath, const QString &guid, int fileId);

    QString RequestFile(unsigned int fileId, const QString &guid, LockState lock);
    QString RequestFile(const KeldaUrl &url, LockState lock);
    QString RequestFileAsync(unsigned int fileId, const QString &guid, LockState lock);
    QString RequestFileAsync(const KeldaUrl &url, LockState lock);
    void CloseFile(unsigned int fileId, const QString &guid);
    void CloseFile(const KeldaUrl &url);
    QString DeleteFileName(unsigned int fileId, const QString &guid);
    QString DeleteFileName(const KeldaUrl &url);

    QString MoveToNas(const QString &guid);
    QString MoveToNas(const KeldaUrl &url);
    void MoveToNasSync(const QString &guid);

    void AddReference(const QString &guid);
    void AddReference(const KeldaUrl &url);
    void RemoveReference(const QString &guid);
    void RemoveReference(const KeldaUrl &url);
    void RemoveAllReferences(const QString &guid);
    void RemoveAllReferences(const KeldaUrl &url);

    QStringList GetApplicationList();
    QString GetApplicationListAsync();
    QStringList GetUserList();
    QString GetUserListAsync();
    QStringList GetFileList(const QString &guid);
    QStringList GetFileList(const KeldaUrl &url);
    QString GetFileListAsync(const QString &guid);

    // The result table: 16 column headers, then 16 values per group. count
    // receives the number of columns.
    QStringList QueryFiles(const FileQuery &query, unsigned int &count);
    QString QueryFilesAsync(const FileQuery &query, unsigned int &count);
    QString QueryMetaDataAsync(const QString &guid, const QString &application);
    QString DeleteFileGroupAsync(const QString &guid);
    QString ExportArchiveAsync(const QStringList &guids, const QString &target);
    QString ImportArchiveAsync(const QStringList &items);
    QString GetRemoteStorageLocationAsync(const QString &guidOrUrl);
    QString GetTovinFilegroupGuidAsync(const QString &guid, const QString &fileId);
    QString QueryLocationStateProgress(const QString &guid);
    QString CheckFileGroupExists(const QString &guid);

    bool IsValidURL(const KeldaUrl &url);

    // Lets the user pick an archived file in the quick file select dialog.
    // fileId is the dialog's stored id, the listed id plus 1.
    bool GetSelectedFile(QWidget *parent, const QString &title, QString &guid, unsigned int &fileId);
    // Sets url also after a cancel, then to an empty GUID and file id 0.
    bool GetSelectedFile(QWidget *parent, const QString &title, KeldaUrl &url);

signals:
    void connected();
    void disconnected();
    void CreateFileGroupSg(QString a_sGuid, QString a_sPathToUse);
    void CreateTovinFileGroupSg(QString a_sGuid, QString a_sPath, int a_iError, QString a_sErrorString);
    void AddFileSg(QString a_sRequestId, unsigned int a_fileId);
    void AddTovinFileSg(QString a_sRequestId, unsigned int a_fileId, int a_iError, QString a_sErrorString);
    void GetApplicationListSg(QString a_sRequestId, QStringList applicationList, int a_iError, QString a_sErrorString);
    void GetFileListSg(QString a_sRequestId, QStringList fileList, int a_iError, QString a_sErrorString);
    void GetUserListSg(QString a_sRequestId, QStringList userList, int a_iError, QString a_sErrorString);
    void DeleteFileNameSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void RequestFileSg(QString a_sRequestId, QString a_sPath, int a_iError, QString a_sErrorString);
    void CloseFileSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void MoveToNasSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void AddReferenceSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void RemoveReferenceSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void RemoveAllReferenceSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void copyForeignFileGroupProgess(QString a_sRequestId, float a_fProgress);
    void exportArchiveSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void importArchiveSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void queryFileGroupsSg(QString a_sRequestId, QStringList fileGroups, int a_iNumberOfFileGroups, int a_iError,
                           QString a_sErrorString);
    void QueryMetaDataSg(QString a_sRequestId, Kelda::FileGroupData a_metaData, int a_iError, QString a_sErrorString);
    void deleteFileGroupSg(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void queryLocationStateProgressSg(QString a_sRequestId, int a_iLocationState, double a_dProgress, int a_iError,
                                      QString a_sErrorString);
    void checkFileGroupExistsSg(QString a_sRequestId, bool exists, int a_iError, QString a_sErrorString);
    void getRemoteStorageLocationSg(QString a_sRequestId, QString a_remoteIp, QString a_remoteUrl, int a_iError,
                                    QString a_sErrorString);
    void getTovinFilegroupGuidSg(QString a_sRequestId, QString a_guid, int a_iError, QString a_sErrorString);

private slots:
    void SlotConnected(QString a_basePath);
    void SlotDisconnected();
    void EmitCreateFileGroupSg(QString a_sGuid, QString a_sPath);
    void EmitAddFileSg(QString a_sRequestId, unsigned int a_fileId);

private:
    QString CreateFileGroupHelper(bool wait, const QString &version, const QDateTime &lifecycle,
                                  const QString &detail, const QString &comment, FileType fileType,
                                  quint64 reservedStorage, const QString &fileGroupName, QString &localPath,
                                  QString guid);

    friend class KeldaClientPrivate;
    KeldaClientPrivate *d;
};

} // namespace Kelda
