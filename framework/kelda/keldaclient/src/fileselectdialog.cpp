#include "fileselectdialog.h"

#include "clienttreemodel.h"
#include "filegroupcolumns.h"
#include "filequery.h"
#include "keldaclient.h"
#include "keldaerror.h"
#include "keldafile.h"
#include "querydialog.h"
#include "trace.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QContextMenuEvent>
#include <QDateTimeEdit>
#include <QFileDialog>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QTreeView>
#include <QVBoxLayout>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/keldaclient/src/fileselectdialog";
constexpr int kButtonWidth = 60;
constexpr int kViewMinimumWidth = 800;
constexpr int kViewMinimumHeight = 400;
constexpr int kQuickWindowDays = 1;
constexpr int kConnectWaitMs = 5000;
// The model shows a row without its name column.
constexpr int modelColumn(FileGroupColumn::Column column)
{
    return column - 1;
}
// What a user rarely needs. The last index is one past the model's columns
// and names nothing.
constexpr int kHiddenColumns[] = {modelColumn(FileGroupColumn::LocationState),
                                  modelColumn(FileGroupColumn::CreationTime),
                                  modelColumn(FileGroupColumn::LifeCycle),
                                  modelColumn(FileGroupColumn::Comment),
                                  modelColumn(FileGroupColumn::Version),
                                  modelColumn(FileGroupColumn::ReservedStorage),
                                  modelColumn(FileGroupColumn::ReferenceCounter),
                                  modelColumn(FileGroupColumn::LockCount),
                                  modelColumn(FileGroupColumn::Guid),
                                  modelColumn(FileGroupColumn::Count)};

// The wait cursor for as long as a query blocks the GUI thread.
class WaitCursor
{
public:
    WaitCursor() { QApplication::setOverrideCursor(Qt::WaitCursor); }
    ~WaitCursor() { QApplication::restoreOverrideCursor(); }
    WaitCursor(const WaitCursor &) = delete;
    WaitCursor &operator=(const WaitCursor &) = delete;
};

// The open-file helpers' quick dialog on a client of their own. That client
// must finish its handshake before the dialog's first query, or the query
// fails at once with "not connected"; it gets kConnectWaitMs, after which an
// unreachable server shows as that failure. No types mean whatever is
// offered, as no filter means every file.
bool pickArchivedFile(KeldaClient &client, QWidget *parent, const QString &caption, const QVector<FileType> &types,
                      int reserved, QString &guid, unsigned int &fileId)
{
    {
        WaitCursor waitCursor;
        client.WaitForConnected(kConnectWaitMs);
    }
    FileSelectDialog dialog(&client, parent, caption, FileSelectDialog::tr("Open"), false,
                            types.isEmpty() ? FileTypeManager::Instance()->GetTypes() : types, reserved, QString());
    return dialog.Execute(guid, fileId);
}

QPushButton *newButton(const QString &text, QWidget *parent, int fixedWidth = 0)
{
    auto *button = new QPushButton(text, parent);
    button->setAutoDefault(false);
    if (fixedWidth > 0)
        button->setFixedWidth(fixedWidth);
    return button;
}

} // namespace

class FileSelectDialogPrivate
{
public:
    FileSelectDialogPrivate(FileSelectDialog *q, KeldaClient *client, bool queryMode, QString filter);

    void BuildView();
    QLayout *BuildButtonRow(const QString &okText, const QVector<FileType> &types);
    QLayout *BuildTimeRow();
    void Connect();

    // Queries the server with the current query; false (and an error code)
    // when the client reports an error.
    bool RunQuery(QStringList &table, unsigned int &columns, KeldaError &error);
    void DeleteModel();
    void SetModel(const QStringList &table, unsigned int columns);
    void ShowError(const QString &operation, KeldaError error);
    void SetQuickQuery();

    FileSelectDialog *q;
    KeldaClient *m_pClient;
    const bool m_bQueryMode;
    const QString m_sFilter;
    QueryDialog m_queryDialog;
    FileQuery m_query;

    QTreeView *m_view = nullptr;
    FileGroupSortModel *m_sortModel = nullptr;
    ClientTreeModel *m_model = nullptr;
    QAction *m_showColumns = nullptr;
    QPushButton *m_ok = nullptr;
    QPushButton *m_cancel = nullptr;
    QPushButton *m_select = nullptr;
    QComboBox *m_typeCombo = nullptr;
    QComboBox *m_timeCombo = nullptr;
    QDateTimeEdit *m_timeMin = nullptr;
    QDateTimeEdit *m_timeMax = nullptr;
    QDateTime m_from;
    QDateTime m_to;
};

FileSelectDialogPrivate::FileSelectDialogPrivate(FileSelectDialog *q, KeldaClient *client, bool queryMode,
                                                 QString filter)
    : q(q)
    , m_pClient(client)
    , m_bQueryMode(queryMode)
    , m_sFilter(std::move(filter))
    , m_queryDialog(q)
{ }

void FileSelectDialogPrivate::BuildView()
{
    m_sortModel = new FileGroupSortModel(q);
    m_view = new QTreeView(q);
    m_view->setObjectName(QStringLiteral("FileGroupView"));
    m_view->setSelectionMode(QAbstractItemView::SingleSelection);
    m_view->setMinimumSize(kViewMinimumWidth, kViewMinimumHeight);
    m_view->setSortingEnabled(true);
    m_view->setModel(m_sortModel);
}

QLayout *FileSelectDialogPrivate::BuildButtonRow(const QString &okText, const QVector<FileType> &types)
{
    m_ok = newButton(okText, q);
    m_ok->setObjectName(QStringLiteral("OkButton"));
    m_ok->setEnabled(false);
    m_cancel = newButton(FileSelectDialog::tr("Cancel"), q, kButtonWidth);
    m_cancel->setObjectName(QStringLiteral("CancelButton"));

    auto *row = new QHBoxLayout;
    if (m_bQueryMode) {
        m_select = newButton(FileSelectDialog::tr("Select"), q, kButtonWidth);
        m_select->setObjectName(QStringLiteral("SelectButton"));
        row->addWidget(m_select);
    } else {
        m_typeCombo = new QComboBox(q);
        m_typeCombo->setObjectName(QStringLiteral("TypeComboBox"));
        for (FileType type : types)
            m_typeCombo->addItem(FileTypeManager::GetText(type), int(type));
        row->addWidget(m_typeCombo);
    }
    row->addStretch();
    row->addWidget(m_ok);
    // In quick mode "Cancel" closes the time row, under the OK button.
    if (m_bQueryMode)
        row->addWidget(m_cancel);
    return row;
}

QLayout *FileSelectDialogPrivate::BuildTimeRow()
{
    m_timeCombo = new QComboBox(q);
    m_timeCombo->setObjectName(QStringLiteral("TimeComboBox"));
    m_timeCombo->addItem(FileSelectDialog::tr("Creation time"));
    m_timeCombo->addItem(FileSelectDialog::tr("Modification time"));

    const Qt::TimeSpec spec = m_pClient && m_pClient->IsUseUtc() ? Qt::UTC : Qt::LocalTime;
    const QDateTime now = QDateTime::currentDateTime().toTimeSpec(spec);
    m_from = now.addDays(-kQuickWindowDays);
    m_to = now;
    const auto newEdit = [this, spec](const QString &name, const QDateTime &value) {
        auto *edit = new QDateTimeEdit(q);
        edit->setObjectName(name);
        edit->setDisplayFormat(QLocale::system().dateTimeFormat(QLocale::ShortFormat));
        edit->setTimeSpec(spec);
        edit->setDateTime(value);
        return edit;
    };
    m_timeMin = newEdit(QStringLiteral("TimeMin"), m_from);
    m_timeMax = newEdit(QStringLiteral("TimeMax"), m_to);

    auto *row = new QHBoxLayout;
    row->addWidget(m_timeCombo);
    row->addWidget(new QLabel(FileSelectDialog::tr("from"), q));
    row->addWidget(m_timeMin);
    row->addWidget(new QLabel(FileSelectDialog::tr("to"), q));
    row->addWidget(m_timeMax);
    row->addStretch();
    row->addWidget(m_cancel);
    return row;
}

void FileSelectDialogPrivate::Connect()
{
    // The current row, not the last click: the keyboard moves it too.
    QObject::connect(m_view->selectionModel(), &QItemSelectionModel::currentChanged, q,
                     &FileSelectDialog::EnableOkButton);
    QObject::connect(m_view, &QTreeView::expanded, q, &FileSelectDialog::ResizeExpanded);
    QObject::connect(m_ok, &QPushButton::clicked, q, &QDialog::accept);
    QObject::connect(m_cancel, &QPushButton::clicked, q, &QDialog::reject);
    QObject::connect(m_showColumns, &QAction::triggered, q, &FileSelectDialog::ShowColumns);
    if (m_pClient)
        QObject::connect(m_pClient, &KeldaClient::connected, q, &FileSelectDialog::ConnectionEstablished);
    if (m_bQueryMode) {
        QObject::connect(m_select, &QPushButton::clicked, q, &FileSelectDialog::OpenQueryDialog);
        return;
    }
    QObject::connect(m_typeCombo, QOverload<int>::of(&QComboBox::currentIndexChanged), q,
                     &FileSelectDialog::UpdateQuery);
    QObject::connect(m_timeCombo, QOverload<int>::of(&QComboBox::currentIndexChanged), q,
                     &FileSelectDialog::UpdateQuery);
    QObject::connect(m_timeMin, &QDateTimeEdit::dateTimeChanged, q, &FileSelectDialog::UpdateDatetime);
    QObject::connect(m_timeMax, &QDateTimeEdit::dateTimeChanged, q, &FileSelectDialog::UpdateDatetime);
}

bool FileSelectDialogPrivate::RunQuery(QStringList &table, unsigned int &columns, KeldaError &error)
{
    columns = 0;
    table = m_pClient ? m_pClient->QueryFiles(m_query, columns) : QStringList();
    error = m_pClient ? m_pClient->GetError() : KE_NoError;
    return error == KE_NoError;
}

void FileSelectDialogPrivate::DeleteModel()
{
    // A reset model leaves no current row, and says nothing about it.
    m_ok->setEnabled(false);
    m_sortModel->setSourceModel(nullptr);
    delete m_model;
    m_model = nullptr;
}

void FileSelectDialogPrivate::SetModel(const QStringList &table, unsigned int columns)
{
    m_model = new ClientTreeModel(table, int(columns), m_pClient, m_sFilter);
    m_sortModel->setSourceModel(m_model);
    q->ResizeTreeView();
}

void FileSelectDialogPrivate::ShowError(const QString &operation, KeldaError error)
{
    const QString text = KeldaErrorString::Get(error);
    Q_TRACE_FAILURE(kSource, QStringLiteral("FileSelectDialog::%1: KeldaError caught: %2").arg(operation, text));
    QMessageBox::critical(q, FileSelectDialog::tr("Error"), text, QMessageBox::Ok);
}

// Quick mode only ever finds groups stored centrally.
void FileSelectDialogPrivate::SetQuickQuery()
{
    m_query.Reset();
    m_query.AddFileType(FileType(m_typeCombo->currentData().toInt()));
    m_query.SetLocationState(LS_Central);
    m_from = m_timeMin->dateTime();
    m_to = m_timeMax->dateTime();
    if (m_timeCombo->currentIndex() != 0) {
        m_query.SetModificationTimeMin(m_from);
        m_query.SetModificationTimeMax(m_to);
    } else {
        m_query.SetCreationTimeMin(m_from);
        m_query.SetCreationTimeMax(m_to);
    }
}

// ---------------------------------------------------------------- FileSelectDialog

FileSelectDialog::FileSelectDialog(KeldaClient *client, QWidget *parent, const QString &title, const QString &okText,
                                   bool queryMode, const QVector<FileType> &types, int reserved, QString filter)
    : QDialog(parent)
    , d(new FileSelectDialogPrivate(this, client, queryMode, std::move(filter)))
{
    Q_UNUSED(reserved)
    setWindowTitle(title);
    setObjectName(QStringLiteral("FileSelectDialog"));
    setWindowFlags(windowFlags() & ~Qt::WindowContextHelpButtonHint);

    d->BuildView();
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(d->m_view);
    layout->addLayout(d->BuildButtonRow(okText, types));
    if (!queryMode)
        layout->addLayout(d->BuildTimeRow());

    d->m_showColumns = new QAction(tr("S&how columns"), this);
    d->Connect();
    if (!queryMode)
        UpdateQuery(0);
}

FileSelectDialog::~FileSelectDialog()
{
    d->DeleteModel();
}

void FileSelectDialog::UpdateQuery(int)
{
    if (!d->m_pClient || !d->m_pClient->IsConnected()) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("No Connection to KELDA Server"));
        return;
    }
    try {
        QStringList table;
        unsigned int columns = 0;
        KeldaError error = KE_NoError;
        {
            WaitCursor waitCursor;
            // Query mode has no quick controls: a new connection reruns its query.
            if (!d->m_bQueryMode)
                d->SetQuickQuery();
            if (d->RunQuery(table, columns, error)) {
                d->DeleteModel();
                d->SetModel(table, columns);
            }
        }
        // The old rows stay on screen under the message.
        if (error != KE_NoError)
            d->ShowError(QStringLiteral("UpdateQuery"), error);
    } catch (...) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("FileSelectDialog::UpdateQuery: Unknown exception caught"));
    }
}

void FileSelectDialog::UpdateDatetime(const QDateTime &)
{
    UpdateQuery(0);
}

void FileSelectDialog::ConnectionEstablished()
{
    UpdateQuery(0);
}

void FileSelectDialog::OpenQueryDialog()
{
    const QString operation = QStringLiteral("OpenQueryDialog");
    try {
        KeldaError error = KE_NoError;
        const auto fetch = [this, &error](QStringList (KeldaClient::*list)()) {
            const QStringList names = d->m_pClient ? (d->m_pClient->*list)() : QStringList();
            error = d->m_pClient ? d->m_pClient->GetError() : KE_NoError;
            return names;
        };
        const QStringList users = fetch(&KeldaClient::GetUserList);
        const QStringList applications = error == KE_NoError ? fetch(&KeldaClient::GetApplicationList) : QStringList();
        if (error != KE_NoError) {
            d->ShowError(operation, error);
            return;
        }
        d->m_queryDialog.SetLockUsers(users);
        d->m_queryDialog.SetRefApplications(applications);
        if (!d->m_queryDialog.Edit(d->m_query, d->m_pClient && d->m_pClient->IsUseUtc()))
            return;

        QStringList table;
        unsigned int columns = 0;
        {
            WaitCursor waitCursor;
            d->DeleteModel();
            if (d->RunQuery(table, columns, error))
                d->SetModel(table, columns);
        }
        if (error != KE_NoError)
            d->ShowError(operation, error);
    } catch (...) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("FileSelectDialog::OpenQueryDialog: Unknown exception caught"));
    }
}

bool FileSelectDialog::Execute(QString &guid, unsigned int &fileId)
{
    d->DeleteModel();
    QStringList table;
    unsigned int columns = 0;
    KeldaError error = KE_NoError;
    if (!d->RunQuery(table, columns, error))
        return false;
    d->SetModel(table, columns);
    InitColumnsVisibility();
    if (exec() != QDialog::Accepted)
        return false;

    const QModelIndex current = d->m_sortModel->mapToSource(d->m_view->currentIndex());
    if (!d->m_model || !current.isValid())
        return false;
    const FileGroupTreeItem *item = d->m_model->GetItem(current);
    const QString groupGuid = item->Parent() ? item->Parent()->GetGuid() : QString();
    // Only a file row names a file: accept() may come from elsewhere than OK.
    if (item->GetFileId() == 0 || groupGuid.isEmpty())
        return false;
    // The stored id goes on as it is, plus 1 included.
    fileId = item->GetFileId();
    guid = groupGuid;
    return true;
}

void FileSelectDialog::EnableOkButton(const QModelIndex &index)
{
    d->m_ok->setEnabled(false);
    if (!d->m_model)
        return;
    const QModelIndex source = d->m_sortModel->mapToSource(index);
    if (source.isValid() && d->m_model->GetItem(source)->GetFileId() != 0)
        d->m_ok->setEnabled(true);
}

void FileSelectDialog::ResizeExpanded(const QModelIndex &)
{
    d->m_view->resizeColumnToContents(0);
}

void FileSelectDialog::ResizeTreeView()
{
    for (int column = 0; column < d->m_sortModel->columnCount(); ++column)
        d->m_view->resizeColumnToContents(column);
}

void FileSelectDialog::InitColumnsVisibility()
{
    for (int column : kHiddenColumns)
        d->m_view->setColumnHidden(column, true);
}

void FileSelectDialog::ShowColumns()
{
    QDialog chooser(this);
    chooser.setWindowTitle(tr("Show columns"));
    chooser.setObjectName(QStringLiteral("ShowColumnsDialog"));
    // The group box title has never been translated.
    auto *group = new QGroupBox(QStringLiteral("Columns"), &chooser);
    auto *boxes = new QVBoxLayout(group);
    QList<QCheckBox *> columnBoxes;
    for (int column = 0; column < d->m_sortModel->columnCount(); ++column) {
        auto *box = new QCheckBox(d->m_sortModel->headerData(column, Qt::Horizontal).toString(), group);
        box->setChecked(!d->m_view->isColumnHidden(column));
        boxes->addWidget(box);
        columnBoxes.append(box);
    }
    auto *ok = new QPushButton(tr("Ok"), &chooser);
    ok->setFixedWidth(kButtonWidth);
    connect(ok, &QPushButton::clicked, &chooser, &QDialog::accept);
    auto *layout = new QVBoxLayout(&chooser);
    layout->addWidget(group);
    layout->addWidget(ok, 0, Qt::AlignRight);

    if (chooser.exec() != QDialog::Accepted)
        return;
    for (int column = 0; column < columnBoxes.size(); ++column) {
        const bool shown = columnBoxes.at(column)->isChecked();
        d->m_view->setColumnHidden(column, !shown);
        if (shown)
            d->m_view->resizeColumnToContents(column);
    }
}

void FileSelectDialog::contextMenuEvent(QContextMenuEvent *event)
{
    QMenu menu(this);
    menu.addAction(d->m_showColumns);
    menu.exec(event->globalPos());
}

// ---------------------------------------------------------------- KeldaClient

// The client's own picker lives here, beside the dialog it shows, so that the
// client object itself needs no widgets.
bool KeldaClient::GetSelectedFile(QWidget *parent, const QString &title, QString &guid, unsigned int &fileId)
{
    FileSelectDialog dialog(this, parent, title, tr("Ok"), false, FileTypeManager::Instance()->GetTypes(), 0,
                            QString());
    return dialog.Execute(guid, fileId);
}

bool KeldaClient::GetSelectedFile(QWidget *parent, const QString &title, KeldaUrl &url)
{
    QString guid;
    unsigned int fileId = 0;
    const bool selected = GetSelectedFile(parent, title, guid, fileId);
    url = KeldaUrl::fromKeldaIds(guid, fileId);
    return selected;
}

// ---------------------------------------------------------------- KeldaFileDialog

boost::shared_ptr<KeldaFile> KeldaFileDialog::GetOpenFile(QWidget *parent, const QString &caption, const QString &dir,
                                                          const QString &filter, QString *selectedFilter,
                                                          const QVector<FileType> &types, int reserved)
{
    if (KeldaClient::IsKeldaAvailable()) {
        auto *client = new KeldaClient;
        QString guid;
        unsigned int fileId = 0;
        if (!pickArchivedFile(*client, parent, caption, types, reserved, guid, fileId)) {
            delete client;
            return {};
        }
        // The file keeps its client: both go together, the file first.
        return boost::shared_ptr<KeldaFile>(new KeldaFile(client, guid, fileId), [client](KeldaFile *file) {
            delete file;
            delete client;
        });
    }
    const QString name = QFileDialog::getOpenFileName(parent, caption, dir, filter, selectedFilter);
    if (name.isEmpty())
        return {};
    return boost::shared_ptr<KeldaFile>(new KeldaFile(nullptr, name, 0));
}

KeldaUrl KeldaFileDialog::GetOpenUrl(QWidget *parent, const QString &caption, const QString &dir, const QString &filter,
                                     QString *selectedFilter, const QVector<FileType> &types, int reserved)
{
    if (KeldaClient::IsKeldaAvailable()) {
        KeldaClient client;
        QString guid;
        unsigned int fileId = 0;
        if (pickArchivedFile(client, parent, caption, types, reserved, guid, fileId))
            return KeldaUrl(KeldaUrl::fromKeldaIds(guid, fileId));
        return KeldaUrl();
    }
    const QString name = QFileDialog::getOpenFileName(parent, caption, dir, filter, selectedFilter);
    return name.isEmpty() ? KeldaUrl() : KeldaUrl(QUrl::fromLocalFile(name));
}

} // namespace Kelda
