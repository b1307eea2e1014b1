#pragma once

#include "keldaclientglobal.h"

#include <QDateTime>
#include <QDialog>
#include <QStringList>

#include <memory>

class QDateTimeEdit;

namespace Kelda {

class FileQuery;
class QueryDialogPrivate;

// Lets the user edit every criterion of a file query: creation, modification
// and life cycle ranges, search texts, file types, location and lock state,
// lock user and referencing application. One dialog serves many queries and
// keeps the state of its controls between them.
class KELDACLIENT_EXPORT QueryDialog : public QDialog
{
    Q_OBJECT

public:
    explicit QueryDialog(QWidget *parent = nullptr);
    ~QueryDialog() override;

    // Shows the dialog for query; on acceptance writes the controls back into
    // it and returns true. A cancelled edit leaves the query as it was.
    bool Edit(FileQuery &query, bool useUtc);
    // Row 0 of each list is "None", which stands for no restriction.
    void SetLockUsers(const QStringList &users);
    void SetRefApplications(const QStringList &applications);

private slots:
    void ResetControls();

private:
    void ReadControls(FileQuery &query);
    void WriteControls(FileQuery &query);
    void AdjustDefaultDateTimeMax();
    QDateTime ReadDateTimeMin(QDateTimeEdit *edit) const;
    QDateTime ReadDateTimeMax(QDateTimeEdit *edit) const;
    void WriteDateTimeMin(QDateTimeEdit *edit, const QDateTime &value);
    void WriteDateTimeMax(QDateTimeEdit *edit, const QDateTime &value);

    friend class QueryDialogPrivate;
    const std::unique_ptr<QueryDialogPrivate> d;
};

} // namespace Kelda
