#include "clienttreemodel.h"

#include "keldaclient.h"
#include "trace.h"

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/keldaclient/src/clienttreemodel";
const QString kFilterSeparator = QStringLiteral(";;");

} // namespace

// ---------------------------------------------------------------- FileGroupTreeItem

FileGroupTreeItem::FileGroupTreeItem(const QVector<QVariant> &data, const QString &guid, unsigned int fileId,
                                     bool hasChildren, FileGroupTreeItem *parent)
    : m_pParentItem(parent)
    , m_itemData(data)
    , m_sGuid(guid)
    , m_uFileId(fileId)
    , m_bHasChildren(hasChildren)
{
}

FileGroupTreeItem::FileGroupTreeItem(const FileGroupTreeItem &other)
    : m_pParentItem(other.m_pParentItem)
    , m_itemData(other.m_itemData)
    , m_sGuid(other.m_sGuid)
    , m_uFileId(other.m_uFileId)
    , m_bHasChildren(other.m_bHasChildren)
{
    for (const FileGroupTreeItem *child : other.m_childItems) {
        auto *copy = new FileGroupTreeItem(*child);
        copy->m_pParentItem = this;
        m_childItems.append(copy);
    }
}

FileGroupTreeItem &FileGroupTreeItem::operator=(const FileGroupTreeItem &other)
{
    if (this == &other)
        return *this;
    // The copy takes the old children with it when it goes.
    FileGroupTreeItem copy(other);
    m_childItems.swap(copy.m_childItems);
    for (FileGroupTreeItem *child : qAsConst(m_childItems))
        child->m_pParentItem = this;
    m_pParentItem = other.m_pParentItem;
    m_itemData = other.m_itemData;
    m_sGuid = other.m_sGuid;
    m_uFileId = other.m_uFileId;
    m_bHasChildren = other.m_bHasChildren;
    return *this;
}

FileGroupTreeItem::~FileGroupTreeItem()
{
    qDeleteAll(m_childItems);
}

FileGroupTreeItem *FileGroupTreeItem::Child(int row) const
{
    return row < 0 || row >= m_childItems.size() ? nullptr : m_childItems.at(row);
}

int FileGroupTreeItem::ChildCount() const
{
    return m_childItems.size();
}

int FileGroupTreeItem::ColumnCount() const
{
    return m_itemData.size();
}

int FileGroupTreeItem::ChildNumber() const
{
    if (!m_pParentItem)
        return 0;
    return m_pParentItem->m_childItems.indexOf(const_cast<FileGroupTreeItem *>(this));
}

QVariant FileGroupTreeItem::Data(int column) const
{
    return column < 0 || column >= m_itemData.size() ? QVariant() : m_itemData.at(column);
}

bool FileGroupTreeItem::SetData(int column, const QVariant &value)
{
    if (column < 0 || column >= m_itemData.size())
        return false;
    m_itemData[column] = value;
    return true;
}

bool FileGroupTreeItem::InsertChildren(int position, int count, int columns)
{
    if (position < 0 || position > m_childItems.size())
        return false;
    for (int row = 0; row < count; ++row)
        m_childItems.insert(position, new FileGroupTreeItem(QVector<QVariant>(columns), QString(), 0, false, this));
    return true;
}

bool FileGroupTreeItem::RemoveChildren(int position, int count)
{
    if (position < 0 || position + count > m_childItems.size())
        return false;
    for (int row = 0; row < count; ++row)
        delete m_childItems.takeAt(position);
    return true;
}

FileGroupTreeItem *FileGroupTreeItem::Parent() const
{
    return m_pParentItem;
}

QString FileGroupTreeItem::GetGuid() const
{
    return m_sGuid;
}

void FileGroupTreeItem::SetGuid(const QString &guid)
{
    m_sGuid = guid;
}

unsigned int FileGroupTreeItem::GetFileId() const
{
    return m_uFileId;
}

void FileGroupTreeItem::SetFileId(unsigned int fileId)
{
    m_uFileId = fileId;
}

bool FileGroupTreeItem::GetHasChildren() const
{
    return m_bHasChildren;
}

void FileGroupTreeItem::SetHasChildren(bool hasChildren)
{
    m_bHasChildren = hasChildren;
}

// ---------------------------------------------------------------- ClientTreeModel

class ClientTreeModelPrivate
{
public:
    explicit ClientTreeModelPrivate(KeldaClient *client)
        : m_pRootItem(new FileGroupTreeItem(QVector<QVariant>()))
        , m_pClient(client)
    {
    }

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
{
}

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
