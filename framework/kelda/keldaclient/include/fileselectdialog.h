#pragma once

#include "keldaclientglobal.h"

#include "filetype.h"
#include "keldaurl.h"

#include <QDateTime>
#include <QDialog>
#include <QModelIndex>
#include <QString>
#include <QVector>

#include <boost/shared_ptr.hpp>

#include <memory>

class QContextMenuEvent;

namespace Kelda {

class FileSelectDialogPrivate;
class KeldaClient;
class KeldaFile;

// Lets the user pick one file of one archived file group from the result of
// a file group query, shown as a tree of groups that expand to their files.
//
// Quick mode offers a file type and a creation or modification time window
// above the tree and queries again whenever they change; it finds only groups
// stored centrally. Query mode has a "Select" button that opens the full
// query dialog.
class KELDACLIENT_EXPORT FileSelectDialog : public QDialog
{
    Q_OBJECT

public:
    // reserved is accepted for compatibility and not used. filter ("Text
    // (*.txt);;...") limits the files listed below a group.
    FileSelectDialog(KeldaClient *client, QWidget *parent, const QString &title, const QString &okText,
                     bool queryMode, const QVector<FileType> &types, int reserved = 0, QString filter = QString());
    ~FileSelectDialog() override;

    // Runs the current query and shows the dialog. On acceptance guid is the
    // chosen group and fileId the file row's stored id (the listed id plus 1).
    bool Execute(QString &guid, unsigned int &fileId);
    // Shows the usual columns and hides the others.
    void InitColumnsVisibility();

public slots:
    void UpdateQuery(int);
    void UpdateDatetime(const QDateTime &);
    void ConnectionEstablished();
    void OpenQueryDialog();
    void ShowColumns();
    void EnableOkButton(const QModelIndex &index);
    void ResizeExpanded(const QModelIndex &index);
    void ResizeTreeView();

protected:
    void contextMenuEvent(QContextMenuEvent *event) override;

private:
    friend class FileSelectDialogPrivate;
    const std::unique_ptr<FileSelectDialogPrivate> d;
};

// Open-file helpers shaped like the platform's: they show the archive when a
// server is configured and the local file system otherwise.
class KELDACLIENT_EXPORT KeldaFileDialog
{
public:
    // The chosen archived file, bound to a client of its own that it keeps
    // alive; a plain local file when no server is configured; empty on
    // cancel. filter and selectedFilter serve the local dialog only.
    static boost::shared_ptr<KeldaFile> GetOpenFile(QWidget *parent, const QString &caption = QString(),
                                                    const QString &dir = QString(),
                                                    const QString &filter = QString(),
                                                    QString *selectedFilter = nullptr,
                                                    const QVector<FileType> &types = QVector<FileType>(),
                                                    int reserved = 0);
    // The chosen archived file as kelda:///<guid>/<file id>, a local file's
    // URL when no server is configured, or an empty URL on cancel. filter and
    // selectedFilter serve the local dialog only.
    static KeldaUrl GetOpenUrl(QWidget *parent, const QString &caption = QString(), const QString &dir = QString(),
                               const QString &filter = QString(), QString *selectedFilter = nullptr,
                               const QVector<FileType> &types = QVector<FileType>(), int reserved = 0);
};

} // namespace Kelda
