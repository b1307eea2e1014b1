#pragma once

#include "keldaclientglobal.h"

#include <QDialog>
#include <QScopedPointer>
#include <QStringList>

/*!
    \file querydialog.h
    \brief The dialog that edits a file query.
*/

namespace Kelda {

class FileQuery;
class QueryDialogPrivate;

/*!
    \class Kelda::QueryDialog
    \brief Lets the user edit every criterion of a FileQuery.

    The form offers the creation, modification and life cycle ranges, each
    switched on by a check box; six search texts; one check box per type
    that FileTypeManager offers; the location and lock state; the user who
    holds a lock and the application that holds a reference. The backup
    time range is never touched.

    One dialog serves many queries: its controls keep their state between
    Edit() calls, and Edit() overwrites only what the query sets. "Reset"
    returns every control to its default: the time window of the last two
    days, moving on by whole days, empty texts, no types, "None" in both
    lists. The dialog talks to nobody; FileSelectDialog fills its lists from
    the server.

    Use it in the GUI thread.
*/
class KELDACLIENT_EXPORT QueryDialog : public QDialog
{
    Q_OBJECT

public:
    //! Constructs the dialog with its default controls, as a child of \a parent.
    explicit QueryDialog(QWidget *parent = nullptr);
    //! Destroys the dialog.
    ~QueryDialog() override;

    /*!
        Shows the controls for \a query and runs the dialog modally, its time
        edits in UTC when \a useUtc is true and in local time otherwise.

        Returns true when the user accepted; \a query then holds the edited
        criteria (an unchecked range open on both sides, texts trimmed, the
        types in the offered order). Returns false on cancel and leaves
        \a query unchanged.
    */
    bool Edit(FileQuery &query, bool useUtc);
    //! Fills the lock user list with "None", which means no restriction, and \a users.
    void SetLockUsers(const QStringList &users);
    //! Fills the referencing application list with "None" and \a applications.
    void SetRefApplications(const QStringList &applications);

private:
    Q_DECLARE_PRIVATE_D(d, QueryDialog)
    const QScopedPointer<QueryDialogPrivate> d;
    Q_PRIVATE_SLOT(d_func(), void ResetControls())
};

} // namespace Kelda
