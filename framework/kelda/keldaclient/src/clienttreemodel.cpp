#include "clienttreemodel.h"

#include "keldaclient.h"
#include "trace.h"

#include <QList>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/keldaclient/src/clienttreemodel";
const QString kFilterSeparator = QStringLiteral(";;");

} // namespace

// ---------------------------------------------------------------- FileGroupTreeItem

class FileGroupTreeItemPrivate
{
public:
    FileGroupTreeItemPrivate(const QVector<QVariant> &data, const QString &guid, unsigned int fileId, bool hasChildren,
                             FileGroupTreeItem *parent)
        : m_pParentItem(parent)
        , m_itemData(data)
        , m_sGuid(guid)
        , m_uFileId(fileId)
        , m_bHasChildren(hasChildren)
    { }

    FileGroupTreeItem *m_pParentItem;
    QList<FileGroupTreeItem *> m_childItems;
    QVector<QVariant> m_itemData;
    QString m_sGuid;
    quint32 m_uFileId;
    bool m_bHasChildren;
};

FileGroupTreeItem::FileGroupTreeItem(const QVector<QVariant> &data, const QString &guid, unsigned int fileId,
                                     bool hasChildren, FileGroupTreeItem *parent)
    : d(new FileGroupTreeItemPrivate(data, guid, fileId, hasChildren, parent))
{ }

FileGroupTreeItem::FileGroupTreeItem(const FileGroupTreeItem &other)
    : d(new FileGroupTreeItemPrivate(other.d->m_itemData, other.d->m_sGuid, other.d->m_uFileId, other.d->m_bHasChildren,
                                     other.d->m_pParentItem))
{
    for (const FileGroupTreeItem *child : qAsConst(other.d->m_childItems)) {
        auto *copy = new FileGroupTreeItem(*child);
        copy->d->m_pParentItem = this;
        d->m_childItems.append(copy);
    }
}

FileGroupTreeItem &FileGroupTreeItem::operator=(const FileGroupTreeItem &other)
{
    if (this == &other)
        return *this;
    // The copy is made before anything changes, since other may be one of
    // this item's children; it takes the old values and children with it
    // when it goes.
    FileGroupTreeItem copy(other);
    d.swap(copy.d);
    for (FileGroupTreeItem *child : qAsConst(d->m_childItems))
        child->d->m_pParentItem = this;
    return *this;
}

FileGroupTreeItem::~FileGroupTreeItem()
{
    qDeleteAll(d->m_childItems);
}

FileGroupTreeItem *FileGroupTreeItem::Child(int row) const
{
    return row < 0 || row >= d->m_childItems.size() ? nullptr : d->m_childItems.at(row);
}

int FileGroupTreeItem::ChildCount() const
{
    return d->m_childItems.size();
}

int FileGroupTreeItem::ColumnCount() const
{
    return d->m_itemData.size();
}

int FileGroupTreeItem::ChildNumber() const
{
    if (!d->m_pParentItem)
        return 0;
    return d->m_pParentItem->d->m_childItems.indexOf(const_cast<FileGroupTreeItem *>(this));
}

QVariant FileGroupTreeItem::Data(int column) const
{
    return column < 0 || column >= d->m_itemData.size() ? QVariant() : d->m_itemData.at(column);
}

bool FileGroupTreeItem::SetData(int column, const QVariant &value)
{
    if (column < 0 || column >= d->m_itemData.size())
        return false;
    d->m_itemData[column] = value;
    return true;
}

bool FileGroupTreeItem::InsertChildren(int position, int count, int columns)
{
    if (position < 0 || position > d->m_childItems.size())
        return false;
    for (int row = 0; row < count; ++row)
        d->m_childItems.insert(position, new FileGroupTreeItem(QVector<QVariant>(columns), QString(), 0, false, this));
    return true;
}

bool FileGroupTreeItem::RemoveChildren(int position, int count)
{
    if (position < 0 || position + count > d->m_childItems.size())
        return false;
    for (int row = 0; row < count; ++row)
        delete d->m_childItems.takeAt(position);
    return true;
}

FileGroupTreeItem *FileGroupTreeItem::Parent() const
{
    return d->m_pParentItem;
}

QString FileGroupTreeItem::GetGuid() const
{
    return d->m_sGuid;
}

void FileGroupTreeItem::SetGuid(const QString &guid)
{
    d->m_sGuid = guid;
}

unsigned int FileGroupTreeItem::GetFileId() const
{
    return d->m_uFileId;
}

void FileGroupTreeItem::SetFileId(unsigned int fileId)
{
    d->m_uFileId = fileId;
}

bool FileGroupTreeItem::GetHasChildren() const
{
    return d->m_bHasChildren;
}

void FileGroupTreeItem::SetHasChildren(bool hasChildren)
{
    d->m_bHasChildren = hasChildren;
}

// ---------------------------------------------------------------- ClientTreeModel

class ClientTreeModelPrivate
{
public:
    explicit ClientTreeModelPrivate(KeldaClient *client)
        : m_pRootItem(new FileGroupTreeItem(QVector<QVariant>()))
        , m_pClient(client)
    { }

    void SetupModelData(const QStringList &data, int columns);
    // The file name endings of the filter, one per "Description (*.ext)" part.
    QStringList FilterEndings() const;

    const QScopedPointer<FileGroupTreeItem> m_pRootItem;
    KeldaClient *const m_pClient;
    QString m_sFilter;
};

ClientTreeModel::ClientTreeModel(const QStringList &data, int columns, KeldaClient *client, const QString &filter,
                                 QObject *parent)
    : QAbstractItemModel(parent)
    , d(new ClientTreeModelPrivate(client))
{
    if (!filter.isEmpty())
        d->m_sFilter = filter;
    d->SetupModelData(data, columns);
}

ClientTreeModel::~ClientTreeModel() = default;

void ClientTreeModelPrivate::SetupModelData(const QStringList &data, int columns)
{
    // "%!" is no placeholder; the texts reach the trace as they are.
    if (columns < 1) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("ClientTreeModel::SetupModelData: Invalid number of columns (%!)"));
        return;
    }
    const int rows = data.size() / columns;
    if (rows < 1) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("ClientTreeModel::SetupModelData: Invalid number of rows (%!)"));
        return;
    }

    QVector<QVariant> headers;
    headers.reserve(columns - 1);
    for (int column = 1; column < columns; ++column)
        headers.append(data.at(column));
    *m_pRootItem = FileGroupTreeItem(headers, QString(), 0, true);

    for (int row = 1; row < rows; ++row) {
        const int first = row * columns;
        m_pRootItem->InsertChildren(m_pRootItem->ChildCount(), 1, columns - 1);
        FileGroupTreeItem *group = m_pRootItem->Child(m_pRootItem->ChildCount() - 1);
        for (int column = 1; column < columns; ++column)
            group->SetData(column - 1, data.at(first + column));
        group->SetGuid(data.at(first + columns - 1));
        group->SetHasChildren(true);
    }
}

FileGroupTreeItem *ClientTreeModel::GetItem(const QModelIndex &index) const
{
    if (index.isValid()) {
        if (auto *item = static_cast<FileGroupTreeItem *>(index.internalPointer()))
            return item;
    }
    return d->m_pRootItem.data();
}

QModelIndex ClientTreeModel::index(int row, int column, const QModelIndex &parent) const
{
    if (parent.isValid() && parent.column() != 0)
        return QModelIndex();
    FileGroupTreeItem *child = GetItem(parent)->Child(row);
    return child ? createIndex(row, column, child) : QModelIndex();
}

QModelIndex ClientTreeModel::parent(const QModelIndex &index) const
{
    if (!index.isValid())
        return QModelIndex();
    FileGroupTreeItem *parentItem = GetItem(index)->Parent();
    if (!parentItem || parentItem == d->m_pRootItem.data())
        return QModelIndex();
    return createIndex(parentItem->ChildNumber(), 0, parentItem);
}

int ClientTreeModel::rowCount(const QModelIndex &parent) const
{
    return GetItem(parent)->ChildCount();
}

int ClientTreeModel::columnCount(const QModelIndex &) const
{
    return d->m_pRootItem->ColumnCount();
}

QVariant ClientTreeModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || role != Qt::DisplayRole)
        return QVariant();
    return GetItem(index)->Data(index.column());
}

QVariant ClientTreeModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal && role == Qt::DisplayRole)
        return d->m_pRootItem->Data(section);
    return QVariant();
}

Qt::ItemFlags ClientTreeModel::flags(const QModelIndex &index) const
{
    if (!index.isValid())
        return Qt::NoItemFlags;
    return Qt::ItemIsSelectable | Qt::ItemIsEnabled;
}

bool ClientTreeModel::hasChildren(const QModelIndex &parent) const
{
    return GetItem(parent)->GetHasChildren();
}

bool ClientTreeModel::canFetchMore(const QModelIndex &parent) const
{
    const FileGroupTreeItem *item = GetItem(parent);
    if (item == d->m_pRootItem.data() || !item->GetHasChildren())
        return false;
    return item->ChildCount() == 0;
}

QStringList ClientTreeModelPrivate::FilterEndings() const
{
    QStringList endings;
    const QStringList parts = m_sFilter.split(kFilterSeparator, Qt::SkipEmptyParts);
    for (const QString &part : parts) {
        QString ending = part.mid(part.indexOf(QLatin1Char('*')) + 1);
        const int close = ending.indexOf(QLatin1Char(')'));
        if (close >= 0)
            ending.truncate(close);
        endings.append(ending);
    }
    return endings;
}

void ClientTreeModel::fetchMore(const QModelIndex &parent)
{
    if (!canFetchMore(parent) || !d->m_pClient)
        return;
    FileGroupTreeItem *group = GetItem(parent);
    const QStringList files = d->m_pClient->GetFileList(group->GetGuid());
    const KeldaError error = d->m_pClient->GetError();
    if (error != KE_NoError) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("ClientTreeModel::fetchMore: KeldaError caught: %1").arg(error));
        return;
    }

    // Each child: its text for column 0 and its stored file id. The id is
    // kept plus 1 so that 0 always means a group row. A filter keeps every
    // string of the list (ids and names alike) with a wanted ending; a kept
    // name does not parse as a number and so carries the file id 1.
    QVector<QPair<QString, unsigned int>> children;
    if (d->m_sFilter.isEmpty()) {
        for (int k = 0; 2 * k + 1 < files.size(); ++k)
            children.append({files.at(2 * k + 1), files.at(2 * k).toUInt() + 1});
    } else {
        const QStringList endings = d->FilterEndings();
        for (const QString &entry : files) {
            for (const QString &ending : endings) {
                if (entry.endsWith(ending, Qt::CaseSensitive)) {
                    children.append({entry, entry.toUInt() + 1});
                    break;
                }
            }
        }
    }

    if (children.isEmpty()) {
        group->SetHasChildren(false);
        return;
    }
    insertRows(0, children.size(), parent);
    for (int row = 0; row < children.size(); ++row) {
        FileGroupTreeItem *child = group->Child(row);
        child->SetData(0, children.at(row).first);
        child->SetFileId(children.at(row).second);
    }
}

bool ClientTreeModel::insertRows(int row, int count, const QModelIndex &parent)
{
    FileGroupTreeItem *item = GetItem(parent);
    beginInsertRows(parent, row, row + count - 1);
    const bool inserted = item->InsertChildren(row, count, d->m_pRootItem->ColumnCount());
    endInsertRows();
    return inserted;
}

bool ClientTreeModel::removeRows(int row, int count, const QModelIndex &parent)
{
    FileGroupTreeItem *item = GetItem(parent);
    beginRemoveRows(parent, row, row + count - 1);
    const bool removed = item->RemoveChildren(row, count);
    endRemoveRows();
    return removed;
}

// ---------------------------------------------------------------- FileGroupSortModel

FileGroupSortModel::FileGroupSortModel(QObject *parent)
    : QSortFilterProxyModel(parent)
{ }

bool FileGroupSortModel::lessThan(const QModelIndex &left, const QModelIndex &right) const
{
    const QString header = sourceModel()->headerData(left.column(), Qt::Horizontal, Qt::DisplayRole).toString();
    const QVariant leftValue = sourceModel()->data(left, Qt::DisplayRole);
    const QVariant rightValue = sourceModel()->data(right, Qt::DisplayRole);
    if (header.contains(tr("count"), Qt::CaseInsensitive) || header.contains(tr("storage"), Qt::CaseInsensitive))
        return leftValue.toLongLong() < rightValue.toLongLong();
    return QString::localeAwareCompare(leftValue.toString(), rightValue.toString()) < 0;
}

} // namespace Kelda
