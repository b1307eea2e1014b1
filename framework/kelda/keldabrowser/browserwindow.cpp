#include "browserwindow.h"

#include "filegroupdata.h"
#include "fileselectdialog.h"
#include "filetype.h"
#include "keldaclient.h"
#include "keldasaveasdlg.h"
#include "keldaurl.h"

#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

using namespace Kelda;

namespace KeldaBrowser {

namespace {

const QString kApplication = QStringLiteral("keldabrowser");

// The name of a file in a GetFileList result (id, name, id, name, ...).
QString fileNameIn(const QStringList &files, unsigned int fileId)
{
    for (int i = 0; i + 1 < files.size(); i += 2) {
        if (files.at(i) == QString::number(fileId))
            return files.at(i + 1);
    }
    return QString();
}

} // namespace

BrowserWindow::BrowserWindow(KeldaClient &client, const BrowserOptions &options, QWidget *parent)
    : QWidget(parent)
    , m_client(client)
    , m_options(options)
    , m_state(new QLabel(this))
    , m_picked(new QLabel(tr("No file picked yet."), this))
    , m_metaData(new QPlainTextEdit(this))
    , m_quick(new QPushButton(tr("&Pick a file..."), this))
    , m_query(new QPushButton(tr("&Find with a query..."), this))
    , m_open(new QPushButton(tr("&Open with the desktop"), this))
    , m_store(new QPushButton(tr("&Store a local file..."), this))
{
    setWindowTitle(tr("Kelda archive browser - %1:%2").arg(options.host).arg(options.port));
    m_metaData->setReadOnly(true);
    m_metaData->setMinimumSize(560, 460);
    m_picked->setTextInteractionFlags(Qt::TextSelectableByMouse);

    auto *buttons = new QHBoxLayout;
    for (QPushButton *button : {m_quick, m_query, m_open, m_store})
        buttons->addWidget(button);
    buttons->addStretch();
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_state);
    layout->addLayout(buttons);
    layout->addWidget(m_picked);
    layout->addWidget(m_metaData, 1);

    connect(m_quick, &QPushButton::clicked, this, [this] { Pick(false); });
    connect(m_query, &QPushButton::clicked, this, [this] { Pick(true); });
    connect(m_open, &QPushButton::clicked, this, &BrowserWindow::OpenPicked);
    connect(m_store, &QPushButton::clicked, this, &BrowserWindow::StoreLocalFile);
    connect(&m_client, &KeldaClient::connected, this, &BrowserWindow::ShowConnectionState);
    connect(&m_client, &KeldaClient::disconnected, this, &BrowserWindow::ShowConnectionState);
    connect(&m_client, &KeldaClient::QueryMetaDataSg, this, &BrowserWindow::ShowMetaData);
    ShowConnectionState();
}

BrowserWindow::~BrowserWindow()
{
    ReleaseOpenedFile();
}

void BrowserWindow::ShowConnectionState()
{
    const bool connected = m_client.IsConnected();
    m_state->setText(connected ? tr("Connected to %1:%2.").arg(m_options.host).arg(m_options.port)
                               : tr("Not connected to %1:%2; retrying every 5 s. Is keldaserver running there?")
                                     .arg(m_options.host)
                                     .arg(m_options.port));
    for (QPushButton *button : {m_quick, m_query, m_store})
        button->setEnabled(connected);
    m_open->setEnabled(connected && !m_guid.isEmpty());
}

void BrowserWindow::Pick(bool queryMode)
{
    FileSelectDialog dialog(&m_client, this, queryMode ? tr("Find a file in the archive") : tr("Pick a file"),
                            tr("Select"), queryMode, FileTypeManager::Instance()->GetTypes());
    QString guid;
    unsigned int storedId = 0;
    if (!dialog.Execute(guid, storedId) || storedId == 0) {
        if (m_client.GetError() != KE_NoError)
            ShowError(tr("The query failed: %1").arg(m_client.GetErrorString()));
        return;
    }
    // The dialog's rows keep the file id plus 1, so that 0 marks a group.
    ShowFile(guid, storedId - 1);
}

void BrowserWindow::ShowFile(const QString &guid, unsigned int fileId)
{
    m_guid = guid;
    m_fileId = fileId;
    m_fileName = fileNameIn(m_client.GetFileList(guid), m_fileId);
    m_picked->setText(tr("Picked %1 (%2)").arg(m_fileName, KeldaUrl::fromKeldaIds(m_guid, m_fileId).toString()));
    m_metaData->setPlainText(tr("Asking the server for the group's metadata..."));
    m_metaDataRequest = m_client.QueryMetaDataAsync(m_guid, kApplication);
    ShowConnectionState();
}

void BrowserWindow::ShowMetaData(const QString &requestId, const FileGroupData &group, int error,
                                 const QString &errorText)
{
    if (requestId != m_metaDataRequest)
        return;
    if (error != KE_NoError) {
        m_metaData->setPlainText(tr("The metadata could not be read: %1").arg(errorText));
    } else {
        QStringList lines = group.ToDebugStringList();
        lines.append(tr("Files:"));
        for (const FileGroupData::FileEntry &file : group.getFileList())
            lines.append(QStringLiteral("  %1  %2").arg(file.second, 4).arg(file.first));
        m_metaData->setPlainText(lines.join(QLatin1Char('\n')));
    }
    emit metaDataShown();
}

void BrowserWindow::OpenPicked()
{
    ReleaseOpenedFile();
    const QString path = m_client.RequestFile(m_fileId, m_guid, LOCK_Read);
    if (path.isEmpty()) {
        ShowError(tr("The server did not hand out %1: %2").arg(m_fileName, m_client.GetErrorString()));
        return;
    }
    m_openedGuid = m_guid;
    m_openedFileId = m_fileId;
    m_picked->setText(tr("Opened %1 from %2 (read lock held until the next pick or exit)").arg(m_fileName, path));
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(path)))
        ShowError(tr("No desktop application opens %1.").arg(path));
}

void BrowserWindow::StoreLocalFile()
{
    const QString source = QFileDialog::getOpenFileName(this, tr("Store a local file"));
    if (source.isEmpty())
        return;
    const QFileInfo info(source);
    KeldaSaveAsDlg form(this);
    form.setGroupName(info.completeBaseName());
    form.setFileName(info.fileName());
    form.setFileNameEnabled(false);
    form.setVersion(QStringLiteral("1.0"));
    form.setFileTypeEnabled(true);
    if (form.exec() != QDialog::Accepted)
        return;

    QString groupPath;
    const QString guid = m_client.CreateFileGroup(form.version(), form.endOfLife(), form.detail(), form.comment(),
                                                  FileType(form.fileType()), 0, form.groupName(), groupPath);
    if (guid.isEmpty()) {
        ShowError(tr("The group could not be created: %1").arg(m_client.GetErrorString()));
        return;
    }
    const QString copy = QDir(groupPath).filePath(info.fileName());
    if (!QFile::copy(source, copy)) {
        ShowError(tr("%1 could not be copied into the group's folder %2.").arg(source, groupPath));
        return;
    }
    const unsigned int fileId = m_client.AddFile(copy, guid);
    if (m_client.GetError() != KE_NoError) {
        ShowError(tr("The file could not be added: %1").arg(m_client.GetErrorString()));
        return;
    }
    // Quick mode lists central groups only.
    m_client.MoveToNas(guid);
    m_picked->setText(tr("Stored %1 as %2; it moves to central storage now.")
                          .arg(info.fileName(), KeldaUrl::fromKeldaIds(guid, fileId).toString()));
}

void BrowserWindow::ReleaseOpenedFile()
{
    if (m_openedGuid.isEmpty())
        return;
    m_client.CloseFile(m_openedFileId, m_openedGuid);
    m_openedGuid.clear();
}

void BrowserWindow::ShowError(const QString &what)
{
    QMessageBox::critical(this, tr("Error"), what);
}

} // namespace KeldaBrowser
