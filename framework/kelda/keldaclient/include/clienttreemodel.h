#pragma once

#include "keldaclientglobal.h"

#include <QAbstractItemModel>
#include <QScopedPointer>
#include <QSortFilterProxyModel>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

/*!
    \file clienttreemodel.h
    \brief The result of a file group query as a tree of groups and files.
*/

namespace Kelda {

class ClientTreeModelPrivate;
class FileGroupTreeItemPrivate;
class KeldaClient;

/*!
    \class Kelda::FileGroupTreeItem
    \brief One node of a ClientTreeModel: the root, a file group or a file.

    The root holds the column headers; a group row holds the group's GUID and
    starts with the has-children flag set, its files fetched on demand; a
    file row holds the file's id plus 1, so that 0 always means the root or a
    group. A parent owns its children and deletes them with itself.
*/
class KELDACLIENT_EXPORT FileGroupTreeItem
{
public:
    /*!
        Constructs an item with the column values \a data, the group GUID
        \a guid, the stored file id \a fileId and the has-children flag
        \a hasChildren, below \a parent. The item does not add itself to
        \a parent's children.
    */
    explicit FileGroupTreeItem(const QVector<QVariant> &data, const QString &guid = QString(), unsigned int fileId = 0,
                               bool hasChildren = false, FileGroupTreeItem *parent = nullptr);
    /*!
        Constructs a deep copy of \a other: it owns copies of the children and
        names the same parent, without being one of that parent's children.
    */
    FileGroupTreeItem(const FileGroupTreeItem &other);
    //! Replaces this item's values and children with deep copies of those of \a other.
    FileGroupTreeItem &operator=(const FileGroupTreeItem &other);
    //! Destroys the item and its children.
    ~FileGroupTreeItem();

    //! Returns the child at \a row, or null when there is none.
    FileGroupTreeItem *Child(int row) const;
    //! Returns the number of children.
    int ChildCount() const;
    //! Returns the number of column values.
    int ColumnCount() const;
    //! Returns this item's row in its parent; 0 for the root, -1 when the parent does not list it.
    int ChildNumber() const;
    //! Returns the value of \a column, or an invalid QVariant outside the columns.
    QVariant Data(int column) const;
    //! Sets the value of \a column to \a value; returns false outside the columns.
    bool SetData(int column, const QVariant &value);
    /*!
        Inserts \a count empty children with \a columns values each at
        \a position. Returns false, inserting nothing, when \a position is
        negative or beyond the last child.
    */
    bool InsertChildren(int position, int count, int columns);
    /*!
        Deletes \a count children from \a position on. Returns false,
        deleting nothing, when the range does not lie within the children.
    */
    bool RemoveChildren(int position, int count);
    //! Returns the parent; null for the root.
    FileGroupTreeItem *Parent() const;

    //! Returns the group's GUID; empty for the root and for file rows.
    QString GetGuid() const;
    //! Sets the GUID to \a guid.
    void SetGuid(const QString &guid);
    //! Returns 0 for the root and for groups; for a file row its id plus 1.
    unsigned int GetFileId() const;
    //! Sets the stored file id to \a fileId.
    void SetFileId(unsigned int fileId);
    //! Returns true while a group's files may still be fetched.
    bool GetHasChildren() const;
    //! Sets the has-children flag to \a hasChildren.
    void SetHasChildren(bool hasChildren);

private:
    Q_DECLARE_PRIVATE_D(d, FileGroupTreeItem)
    // Not const: an assignment takes over the private part of a copy.
    QScopedPointer<FileGroupTreeItemPrivate> d;
};

/*!
    \class Kelda::ClientTreeModel
    \brief Shows the result of a file group query as a tree: one top-level
    row per group and, once a view expands it, one row per file.

    The model is built from the flat table that KeldaClient::QueryFiles()
    returns. Text 0 of every table row (the group name) is not shown: a group
    is known by its GUID, which is both its last column and
    FileGroupTreeItem::GetGuid(). When a view expands a group, fetchMore()
    asks the client for the group's files and waits for them (up to 60 s);
    a failure is traced, and the group stays expandable for another try.

    A model serves one query result. Use it in the GUI thread. The client is
    not owned and must outlive the model; the items belong to the model.
*/
class KELDACLIENT_EXPORT ClientTreeModel : public QAbstractItemModel
{
    Q_OBJECT

public:
    /*!
        Constructs a model over \a data: \a columns texts per row, the column
        headers first. A \a columns below 1, or fewer texts than one row,
        give an empty model (traced). \a filter, "Description (*.ext);;...",
        limits the files listed below a group to those whose names end in one
        of the endings; then every listed file carries the stored id 1. An
        empty \a filter lists every file. \a client fetches the files.
    */
    ClientTreeModel(const QStringList &data, int columns, KeldaClient *client, const QString &filter,
                    QObject *parent = nullptr);
    //! Destroys the model and its items.
    ~ClientTreeModel() override;

    //! Returns the index of the child at \a row, \a column of \a parent; invalid when there is none.
    QModelIndex index(int row, int column, const QModelIndex &parent = QModelIndex()) const override;
    //! Returns the index of the group of a file row; invalid for groups.
    QModelIndex parent(const QModelIndex &index) const override;
    //! Returns the number of groups, or of the files fetched for a group.
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    //! Returns the number of shown columns, one less than the table's.
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    //! Returns the text of \a index for Qt::DisplayRole; nothing for other roles.
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    //! Returns the column header for horizontal Qt::DisplayRole; nothing otherwise.
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    //! Returns selectable and enabled for a valid index.
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    //! Returns the has-children flag of the item at \a parent.
    bool hasChildren(const QModelIndex &parent = QModelIndex()) const override;
    //! Returns true for a group that may have files and has none fetched yet.
    bool canFetchMore(const QModelIndex &parent) const override;
    /*!
        Fetches the files of the group at \a parent from the client, blocking
        the GUI thread for up to 60 s. A group without files loses its
        expander; on a client error nothing changes.
    */
    void fetchMore(const QModelIndex &parent) override;
    //! Inserts \a count empty rows at \a row below \a parent; see FileGroupTreeItem::InsertChildren().
    bool insertRows(int row, int count, const QModelIndex &parent = QModelIndex()) override;
    //! Removes \a count rows from \a row below \a parent; see FileGroupTreeItem::RemoveChildren().
    bool removeRows(int row, int count, const QModelIndex &parent = QModelIndex()) override;

    //! Returns the item behind \a index; the root for an invalid index. The model keeps ownership.
    FileGroupTreeItem *GetItem(const QModelIndex &index) const;

private:
    Q_DECLARE_PRIVATE_D(d, ClientTreeModel)
    const QScopedPointer<ClientTreeModelPrivate> d;
};

/*!
    \class Kelda::FileGroupSortModel
    \brief Sorts the rows of a ClientTreeModel.

    A column whose header contains (case-insensitively) the translation of
    "count" or "storage" sorts as numbers, so that 9 comes before 10; every
    other column sorts as text in the user's locale. Dates sort as their
    "yyyy-MM-dd hh:mm:ss" texts.
*/
class KELDACLIENT_EXPORT FileGroupSortModel : public QSortFilterProxyModel
{
    Q_OBJECT

public:
    //! Constructs a sort model owned by \a parent.
    explicit FileGroupSortModel(QObject *parent = nullptr);

protected:
    //! Returns true when \a left sorts before \a right; see the class description.
    bool lessThan(const QModelIndex &left, const QModelIndex &right) const override;
};

} // namespace Kelda
