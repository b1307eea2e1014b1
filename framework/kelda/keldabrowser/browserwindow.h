#pragma once

#include "browseroptions.h"

#include <QString>
#include <QWidget>

class QLabel;
class QPlainTextEdit;
class QPushButton;

namespace Kelda {
class FileGroupData;
class KeldaClient;
} // namespace Kelda

namespace KeldaBrowser {

// The browser's one window: pick an archived file in quick or query mode,
// read its group's metadata, open it with the desktop's application, or
// store a local file as a new group.
class BrowserWindow : public QWidget
{
    Q_OBJECT

public:
    BrowserWindow(Kelda::KeldaClient &client, const BrowserOptions &options, QWidget *parent = nullptr);
    ~BrowserWindow() override;

    // Makes this archived file the picked one and asks for its group's
    // metadata; metaDataShown() follows once it is on screen.
    void ShowFile(const QString &guid, unsigned int fileId);

signals:
    void metaDataShown();

private:
    void ShowConnectionState();
    void Pick(bool queryMode);
    void ShowMetaData(const QString &requestId, const Kelda::FileGroupData &group, int error, const QString &errorText);
    void OpenPicked();
    void StoreLocalFile();
    // The server keeps a read lock while a picked file is open.
    void ReleaseOpenedFile();
    void ShowError(const QString &what);

    Kelda::KeldaClient &m_client;
    const BrowserOptions m_options;
    QLabel *m_state;
    QLabel *m_picked;
    QPlainTextEdit *m_metaData;
    QPushButton *m_quick;
    QPushButton *m_query;
    QPushButton *m_open;
    QPushButton *m_store;

    QString m_guid;
    unsigned int m_fileId = 0;
    QString m_fileName;
    QString m_metaDataRequest;
    QString m_openedGuid;
    unsigned int m_openedFileId = 0;
};

} // namespace KeldaBrowser
