#pragma once

#include "keldaclientglobal.h"

#include <QDateTime>
#include <QDialog>
#include <QString>

#include <memory>

namespace Kelda {

class KeldaSaveAsDlgPrivate;

// A modal form for the metadata of a file group about to be stored: file
// type, group name, file name, version, end of life, comment and detail. The
// caller presets and reads every field and decides which the user may change;
// the file type is locked until the caller enables it.
class KELDACLIENT_EXPORT KeldaSaveAsDlg : public QDialog
{
    Q_OBJECT

public:
    explicit KeldaSaveAsDlg(QWidget *parent = nullptr, Qt::WindowFlags flags = Qt::WindowFlags());
    ~KeldaSaveAsDlg() override;

    QString groupName() const;
    void setGroupName(const QString &name);
    bool groupNameEnabled() const;
    void setGroupNameEnabled(bool enabled);

    QString fileName() const;
    void setFileName(const QString &name);
    bool fileNameEnabled() const;
    void setFileNameEnabled(bool enabled);

    QString version() const;
    void setVersion(const QString &version);
    bool versionEnabled() const;
    void setVersionEnabled(bool enabled);

    QString comment() const;
    void setComment(const QString &comment);
    bool commentEnabled() const;
    void setCommentEnabled(bool enabled);

    QString detail() const;
    void setDetail(const QString &detail);
    bool detailEnabled() const;
    void setDetailEnabled(bool enabled);

    QDateTime endOfLife() const;
    void setEndOfLife(const QDateTime &endOfLife);
    bool endOfLifeEnabled() const;
    void setEndOfLifeEnabled(bool enabled);

    // Every type is listed, also those the installation does not offer.
    int fileType() const;
    // An unlisted value selects "Unknown".
    void setFileType(int fileType);
    bool fileTypeEnabled() const;
    void setFileTypeEnabled(bool enabled);

private:
    const std::unique_ptr<KeldaSaveAsDlgPrivate> d;
};

} // namespace Kelda
