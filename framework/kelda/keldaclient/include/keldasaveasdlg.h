#pragma once

#include "keldaclientglobal.h"

#include <QDateTime>
#include <QDialog>
#include <QScopedPointer>
#include <QString>

/*!
    \file keldasaveasdlg.h
    \brief The form for the metadata of a file group about to be stored.
*/

namespace Kelda {

class KeldaSaveAsDlgPrivate;

/*!
    \class Kelda::KeldaSaveAsDlg
    \brief A modal form for the metadata of a file group about to be stored.

    The fields are the file type, group name, file name, version, end of
    life, comment and detail. The caller presets and reads every field and
    decides which ones the user may change; the file type starts locked,
    until setFileTypeEnabled(true). The end of life starts one month from
    now. The buttons are Save and Cancel; exec() returns QDialog::Accepted
    for Save.

    The dialog talks to nobody: storing the group is the caller's business
    (KeldaClient::CreateFileGroup(), KeldaFile). Use it in the GUI thread.
*/
class KELDACLIENT_EXPORT KeldaSaveAsDlg : public QDialog
{
    Q_OBJECT

public:
    //! Constructs the form as a child of \a parent with the window \a flags.
    explicit KeldaSaveAsDlg(QWidget *parent = nullptr, Qt::WindowFlags flags = Qt::WindowFlags());
    //! Destroys the form.
    ~KeldaSaveAsDlg() override;

    //! Returns the file group name.
    QString groupName() const;
    //! Sets the file group name to \a name.
    void setGroupName(const QString &name);
    //! Returns true when the user may change the group name.
    bool groupNameEnabled() const;
    //! Lets the user change the group name when \a enabled is true.
    void setGroupNameEnabled(bool enabled);

    //! Returns the file name.
    QString fileName() const;
    //! Sets the file name to \a name.
    void setFileName(const QString &name);
    //! Returns true when the user may change the file name.
    bool fileNameEnabled() const;
    //! Lets the user change the file name when \a enabled is true.
    void setFileNameEnabled(bool enabled);

    //! Returns the version.
    QString version() const;
    //! Sets the version to \a version.
    void setVersion(const QString &version);
    //! Returns true when the user may change the version.
    bool versionEnabled() const;
    //! Lets the user change the version when \a enabled is true.
    void setVersionEnabled(bool enabled);

    //! Returns the comment.
    QString comment() const;
    //! Sets the comment to \a comment.
    void setComment(const QString &comment);
    //! Returns true when the user may change the comment.
    bool commentEnabled() const;
    //! Lets the user change the comment when \a enabled is true.
    void setCommentEnabled(bool enabled);

    //! Returns the detail.
    QString detail() const;
    //! Sets the detail to \a detail.
    void setDetail(const QString &detail);
    //! Returns true when the user may change the detail.
    bool detailEnabled() const;
    //! Lets the user change the detail when \a enabled is true.
    void setDetailEnabled(bool enabled);

    //! Returns the end of life.
    QDateTime endOfLife() const;
    //! Sets the end of life to \a endOfLife.
    void setEndOfLife(const QDateTime &endOfLife);
    //! Returns true when the user may change the end of life.
    bool endOfLifeEnabled() const;
    //! Lets the user change the end of life when \a enabled is true.
    void setEndOfLifeEnabled(bool enabled);

    /*!
        Returns the chosen FileType as an int; 0 when none is chosen. Every
        type is listed, "Unknown" and "PCK File" included, not only those
        FileTypeManager offers.
    */
    int fileType() const;
    //! Selects the type \a fileType; a value that is not a FileType selects "Unknown".
    void setFileType(int fileType);
    //! Returns true when the user may change the file type; false until enabled.
    bool fileTypeEnabled() const;
    //! Lets the user change the file type when \a enabled is true.
    void setFileTypeEnabled(bool enabled);

private:
    Q_DECLARE_PRIVATE_D(d, KeldaSaveAsDlg)
    const QScopedPointer<KeldaSaveAsDlgPrivate> d;
};

} // namespace Kelda
