#pragma once

#include "keldaclientglobal.h"

#include <QAbstractItemModel>
#include <QList>
#include <QSortFilterProxyModel>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

namespace Kelda {

class KeldaClient;

// One node of the file group tree: the root (column headers), a file group
// (its GUID, files fetched on demand) or a file. A parent owns its children.
class KELDACLIENT_EXPORT FileGroupTreeItem
{
public:
    explicit FileGroupTreeItem(const QVector<QVariant> &data, const QString &guid = QString(),
                               unsigned int fileId = 0, bool hasChildren = false,
                               FileGroupTreeItem *parent = nullptr);
    // A copy owns copies of the children and names the same parent, without
    // being one of that parent's children.
    FileGroupTreeItem(const FileGroupTreeItem &other);
    FileGroupTreeItem &operator=(const FileGroupTreeItem &other);
    ~FileGroupTreeItem();

    FileGroupTreeItem *Child(int row) const;
    int ChildCount() const;
    int ColumnCount() const;
    // -1 when the parent does not list this item.
    int ChildNumber() const;
    QVariant Data(int column) const;
    bool SetData(int column, const QVariant &value);
    bool InsertChildren(int position, int count, int columns);
    bool RemoveChildren(int position, int count);
    FileGroupTreeItem *Parent() const;

    QString GetGuid() const;
    void SetGuid(const QString &guid);
    // 0 on the root and on groups; a file row holds its id plus 1.
    unsigned int GetFileId() const;
    void SetFileId(unsigned int fileId);
    bool GetHasChildren() const;
    void SetHasChildren(bool hasChildren);

private:
    void CopyChildrenOf(const FileGroupTreeItem &other);
    void DeleteChildren();

    FileGroupTreeItem *m_pParentItem;
    QList<FileGroupTreeItem *> m_childItems;
    QVector<QVariant> m_itemData;
    QString m_sGuid;
    quint32 m_uFileId;
    bool m_bHasChildren;
};

// The result of a file group query as a tree: one top-level row per group,
// and below it, once the view asks for them, one row per file of the group.
// String 0 of every table row (the group name) is not shown: a group is
// known by its GUID, which is both its last column and its guid.
class KELDACLIENT_EXPORT ClientTreeModel : public QAbstractItemModel
{
    Q_OBJECT

public:
    // data: the query table, columns strings per row, headers first. filter:
    // "Description (*.ext);;..." as for a file dialog; empty shows every file.
    ClientTreeModel(const QStringList &data, int columns, KeldaClient *client, const QString &filter,
                    QObject *parent = nullptr);
    ~ClientTreeModel() override;

    QModelIndex index(int row, int column, const QModelIndex &parent = QModelIndex()) const override;
    QModelIndex parent(const QModelIndex &index) const override;
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    bool hasChildren(const QModelIndex &parent = QModelIndex()) const override;
    bool canFetchMore(const QModelIndex &parent) const override;
    void fetchMore(const QModelIndex &parent) override;
    bool insertRows(int row, int count, const QModelIndex &parent = QModelIndex()) override;
    bool removeRows(int row, int count, const QModelIndex &parent = QModelIndex()) override;

    // The item behind an index of this model; the root for an invalid one.
    FileGroupTreeItem *GetItem(const QModelIndex &index) const;

private:
    void SetupModelData(const QStringList &data, int columns);
    // The file name endings of the filter, one per "Description (*.ext)" part.
    QStringList FilterEndings() const;

    FileGroupTreeItem *m_pRootItem;
    KeldaClient *m_pClient;
    QString m_sFilter;
};

// Sorts counter columns (headers naming a count or a storage) as numbers and
// every other column as text in the user's locale.
class KELDACLIENT_EXPORT FileGroupSortModel : public QSortFilterProxyModel
{
    Q_OBJECT

public:
    explicit FileGroupSortModel(QObject *parent = nullptr);

protected:
    bool lessThan(const QModelIndex &left, const QModelIndex &right) const override;
};

} // namespace Kelda
