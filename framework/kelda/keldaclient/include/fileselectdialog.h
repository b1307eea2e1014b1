#pragma once

#include "keldaclientglobal.h"

#include "filetype.h"
#include "keldaurl.h"

#include <QDateTime>
#include <QDialog>
#include <QModelIndex>
#include <QScopedPointer>
#include <QString>
#include <QVector>

#include <boost/shared_ptr.hpp>

QT_BEGIN_NAMESPACE
class QContextMenuEvent;
QT_END_NAMESPACE

/*!
    \file fileselectdialog.h
    \brief The dialog in which a user picks an archived file, and the
    open-file helpers built on it.
*/

namespace Kelda {

class FileSelectDialogPrivate;
class KeldaClient;
class KeldaFile;

/*!
    \class Kelda::FileSelectDialog
    \brief Lets the user pick one file of one archived file group.

    The dialog runs a file group query and shows the result as a tree
    (ClientTreeModel): the groups, each expanding to its files. OK is enabled
    only while the current row, however it was reached (a click or the
    keyboard), is a file row. The context menu's "Show columns"
    lets the user choose the columns.

    In quick mode a file type selector and a creation or modification time
    window sit below the tree; the dialog queries again whenever they change
    and whenever the client connects. The quick query finds only groups
    stored centrally (LS_Central). In query mode a "Select" button opens a
    QueryDialog for the full criteria, which the dialog keeps between uses.

    Each query blocks the GUI thread under the wait cursor for up to 60 s
    (KeldaClient::QueryFiles()). A failed query shows the error text in a
    message box titled "Error"; a failed quick query leaves the rows shown
    before, a failed full query an empty tree. Without a connection nothing
    is queried (traced).

    The client is not owned and must outlive the dialog. Use the dialog in
    the GUI thread.
*/
class KELDACLIENT_EXPORT FileSelectDialog : public QDialog
{
    Q_OBJECT

public:
    /*!
        Constructs the dialog titled \a title, with the OK button labelled
        \a okText, as a child of \a parent, querying through \a client.
        \a queryMode chooses query mode over quick mode. \a types are the
        choices of the quick mode's type selector, in their order. \a filter,
        "Description (*.ext);;...", limits the files listed below a group (see
        ClientTreeModel). \a reserved is accepted for compatibility and not
        used.

        In quick mode the constructor runs the first query at once.
    */
    FileSelectDialog(KeldaClient *client, QWidget *parent, const QString &title, const QString &okText, bool queryMode,
                     const QVector<FileType> &types, int reserved = 0, QString filter = QString());
    //! Destroys the dialog and its model.
    ~FileSelectDialog() override;

    /*!
        Runs the current query, then shows the dialog modally.

        Returns true when the user accepted a file; \a guid is then its group
        and \a fileId the file row's stored id. Returns false, changing
        neither, on cancel, when the query failed, or when the dialog was
        accepted while the current row was not a file row.

        \a fileId is \b not the picked file's id: it is the id the server
        lists for that file plus 1 (see FileGroupTreeItem::GetFileId()), as
        existing callers expect. The picked file's id is
        \code
        const unsigned int pickedId = fileId - 1;
        \endcode
    */
    bool Execute(QString &guid, unsigned int &fileId);
    //! Shows the usual columns and hides the others.
    void InitColumnsVisibility();

public slots:
    //! Runs the quick query again (in query mode, the current query). The argument is not used.
    void UpdateQuery(int);
    //! Runs the quick query again; connected to the time window's edits. The argument is not used.
    void UpdateDatetime(const QDateTime &);
    //! Runs the query again; connected to KeldaClient::connected().
    void ConnectionEstablished();
    /*!
        Fetches the lock users and referencing applications from the server,
        lets the user edit the query in the QueryDialog and, when accepted,
        runs it. Each step blocks for up to 60 s.
    */
    void OpenQueryDialog();
    //! Lets the user choose the shown columns in a small modal dialog.
    void ShowColumns();
    //! Enables OK exactly when \a index (of the view) is a file row.
    void EnableOkButton(const QModelIndex &index);
    //! Fits the first column to its contents after a group was expanded at \a index.
    void ResizeExpanded(const QModelIndex &index);
    //! Fits every column to its contents.
    void ResizeTreeView();

protected:
    //! Offers "Show columns" at the position of \a event.
    void contextMenuEvent(QContextMenuEvent *event) override;

private:
    Q_DECLARE_PRIVATE_D(d, FileSelectDialog)
    const QScopedPointer<FileSelectDialogPrivate> d;
};

/*!
    \class Kelda::KeldaFileDialog
    \brief Open-file helpers shaped like QFileDialog's: they show the archive
    when a server is configured and the local file system otherwise.

    With a server configured, each helper makes a client of its own, waits
    for its connection up to 5 s (running a local event loop that excludes
    user input), and shows a quick-mode FileSelectDialog, modally; each
    query then blocks up to 60 s. Otherwise it shows
    QFileDialog::getOpenFileName(). Use them in the GUI thread.
*/
class KELDACLIENT_EXPORT KeldaFileDialog
{
public:
    /*!
        Lets the user pick a file and returns it, not yet opened.

        With a server configured the result is the chosen archived file,
        bound to a client that the returned pointer owns and deletes after
        the file; without one, a plain local KeldaFile. Returns a null
        pointer on cancel or when the query failed.

        The archived file's KeldaFile::GetFileId() is \b not the picked
        file's id: it is the id the server lists for that file plus 1, as
        existing callers expect, and opening the result asks the server for
        that id. The picked file, on a client of the caller's, is
        \code
        Kelda::KeldaFile picked(&client, file->GetGuid(), file->GetFileId() - 1);
        \endcode

        \a parent and \a caption serve both dialogs. \a types are the archive
        dialog's type choices (see FileSelectDialog); empty, the default,
        means every type that FileTypeManager offers. \a dir, \a filter and
        \a selectedFilter serve the local dialog only. \a reserved is not
        used.
    */
    static boost::shared_ptr<KeldaFile> GetOpenFile(QWidget *parent, const QString &caption = QString(),
                                                    const QString &dir = QString(), const QString &filter = QString(),
                                                    QString *selectedFilter = nullptr,
                                                    const QVector<FileType> &types = QVector<FileType>(),
                                                    int reserved = 0);
    /*!
        Lets the user pick a file and returns its URL: "kelda:///<guid>/<file
        id>" for an archived file, a local file's URL without a server, an
        empty URL on cancel or when the query failed. The arguments are those
        of GetOpenFile().

        The file id in an archived file's URL is \b not the picked file's id:
        it is the id the server lists for that file plus 1, as existing
        callers expect. The URL of the picked file is
        \code
        const Kelda::KeldaUrl picked(Kelda::KeldaUrl::fromKeldaIds(url.toKeldaGuid(), url.toKeldaFileId() - 1));
        \endcode
    */
    static KeldaUrl GetOpenUrl(QWidget *parent, const QString &caption = QString(), const QString &dir = QString(),
                               const QString &filter = QString(), QString *selectedFilter = nullptr,
                               const QVector<FileType> &types = QVector<FileType>(), int reserved = 0);
};

} // namespace Kelda
