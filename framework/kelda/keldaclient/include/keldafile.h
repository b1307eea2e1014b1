#pragma once

#include "keldaclientglobal.h"

#include "filetype.h"
#include "keldaerror.h"

#include <QFile>
#include <QString>

namespace Kelda {

class KeldaClient;
class KeldaFilePrivate;

// A file that lives in the archive but is used like a local QFile.
//
// The create-new form makes a file group for a local file and adds the file
// to it; the open-existing form names an archived file by GUID and file id.
// open() asks the server for the file (write lock for any write mode, read
// lock otherwise) and opens the local copy it names; close() releases the
// lock. The destructor does not: close a file before destroying it. Without a
// configured server the object is a plain QFile on the cleaned local path.
//
// The client is not owned and may be null. Failures are traced and kept as
// the last error; nothing throws.
class KELDACLIENT_EXPORT KeldaFile : public QFile
{
    Q_OBJECT

public:
    explicit KeldaFile(KeldaClient *client);
    // A new file group for the local file `name`. A name without ".", "/" or
    // "\\" is taken for the GUID of an existing group instead.
    KeldaFile(KeldaClient *client, const QString &name, const QString &version, unsigned int &lifeCycleDays,
              const QString &detail, const QString &comment, FileType fileType, quint64 reservedStorage);
    // An archived file; file id 0 makes `nameOrGuid` a local path.
    KeldaFile(KeldaClient *client, const QString &nameOrGuid, unsigned int fileId);
    ~KeldaFile() override;

    bool open(QIODevice::OpenMode mode) override;
    void close() override;

    KeldaError GetError() const;
    QString GetErrorString() const;
    unsigned int GetFileId();
    QString GetGuid();
    // "kelda:///<guid>/<file id>" for an archived file, else the local name.
    QString GetName();
    bool IsEmpty() const;

public slots:
    // Shaped like KeldaClient::AddFileSg; takes the file id of the pending
    // asynchronous add.
    void handleAddFileSignal(const QString &requestId, unsigned int fileId);

signals:
    void fileSuccessfullyAdded(unsigned int fileId);

private:
    bool IsFileName(const QString &s) const;
    void CreateInArchive(const QString &name, unsigned int lifeCycleDays, const QString &version,
                         const QString &detail, const QString &comment, FileType fileType, quint64 reservedStorage);
    bool CopyIntoGroup(const QString &groupPath, const QString &fileName);

    KeldaFilePrivate *d;
};

} // namespace Kelda
