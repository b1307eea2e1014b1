#include "screenshots.h"

#include "filegroupdata.h"
#include "filequery.h"
#include "fileselectdialog.h"
#include "filetype.h"
#include "keldaclient.h"
#include "keldasaveasdlg.h"
#include "querydialog.h"

#include <QApplication>
#include <QComboBox>
#include <QDateTimeEdit>
#include <QDir>
#include <QPixmap>
#include <QTimer>
#include <QTreeView>

#include <functional>
#include <optional>

using namespace Kelda;

namespace KeldaBrowser {

namespace {

constexpr int kPollMs = 10;
constexpr int kPolls = 1000;

// While it lives, waits for a modal dialog of type T, lets prepare fill it,
// grabs it and closes it, so that a caller's exec() returns at once.
template <typename T> class ModalGrabber
{
public:
    explicit ModalGrabber(std::function<void(T *)> prepare)
        : m_prepare(std::move(prepare))
    {
        QObject::connect(&m_timer, &QTimer::timeout, [this] { Poll(); });
        m_timer.start(kPollMs);
    }

    QPixmap picture() const { return m_picture; }

private:
    void Poll()
    {
        T *dialog = qobject_cast<T *>(QApplication::activeModalWidget());
        if (!dialog) {
            if (++m_polls >= kPolls)
                m_timer.stop();
            return;
        }
        m_timer.stop();
        m_prepare(dialog);
        QCoreApplication::processEvents();
        m_picture = dialog->grab();
        dialog->reject();
    }

    std::function<void(T *)> m_prepare;
    QTimer m_timer;
    int m_polls = 0;
    QPixmap m_picture;
};

// The first centrally stored group, for the quick mode's type and window.
std::optional<FileGroupData> firstCentralGroup(KeldaClient &client)
{
    FileQuery query;
    query.SetLocationState(LS_Central);
    unsigned int columns = 0;
    const QStringList table = client.QueryFiles(query, columns);
    if (columns == 0 || table.size() < 2 * int(columns))
        return std::nullopt;
    const std::vector<FileGroupData> groups = FileGroupData::fromStringList(table.mid(int(columns)));
    if (groups.empty())
        return std::nullopt;
    return groups.front();
}

// Opens the first group of the tree and selects its first file, as a user
// about to press OK would see it.
void expandFirstGroup(FileSelectDialog *dialog)
{
    auto *view = dialog->findChild<QTreeView *>(QStringLiteral("FileGroupView"));
    QAbstractItemModel *model = view ? view->model() : nullptr;
    if (!model || model->rowCount() == 0)
        return;
    const QModelIndex group = model->index(0, 0);
    if (model->canFetchMore(group))
        model->fetchMore(group);
    view->expand(group);
    if (model->rowCount(group) > 0) {
        const QModelIndex file = model->index(0, 0, group);
        view->setCurrentIndex(file);
        dialog->EnableOkButton(file);
    }
    for (int column = 0; column < model->columnCount(); ++column)
        view->resizeColumnToContents(column);
}

// Quick mode shows one type and a time window: aim both at a group that is
// there, so that the picture is not empty when the archive is not.
void aimQuickMode(FileSelectDialog &dialog, const std::optional<FileGroupData> &sample)
{
    if (!sample)
        return;
    auto *types = dialog.findChild<QComboBox *>(QStringLiteral("TypeComboBox"));
    const int entry = types ? types->findData(int(sample->getFileType())) : -1;
    if (entry >= 0)
        types->setCurrentIndex(entry);
    auto *from = dialog.findChild<QDateTimeEdit *>(QStringLiteral("TimeMin"));
    const QDateTime created = sample->getCreationTime();
    if (from && created.isValid() && created < from->dateTime())
        from->setDateTime(created.addSecs(-3600));
}

bool save(const QPixmap &picture, const QString &path, ScreenshotResult &result)
{
    if (picture.isNull()) {
        result.error = QStringLiteral("%1: the dialog did not show").arg(path);
        return false;
    }
    if (!picture.save(path, "PNG")) {
        result.error = QStringLiteral("%1: cannot write the picture").arg(path);
        return false;
    }
    result.written.append(path);
    return true;
}

QPixmap grabSelectDialog(KeldaClient &client, bool queryMode, const std::optional<FileGroupData> &sample)
{
    FileSelectDialog dialog(&client, nullptr,
                            queryMode ? QStringLiteral("Find in the archive") : QStringLiteral("Open from the archive"),
                            QStringLiteral("Open"), queryMode, FileTypeManager::Instance()->GetTypes());
    if (!queryMode)
        aimQuickMode(dialog, sample);
    ModalGrabber<FileSelectDialog> grabber(expandFirstGroup);
    QString guid;
    unsigned int fileId = 0;
    dialog.Execute(guid, fileId);
    return grabber.picture();
}

QPixmap grabQueryDialog(KeldaClient &client, const std::optional<FileGroupData> &sample)
{
    QueryDialog dialog;
    dialog.SetLockUsers(client.GetUserList());
    dialog.SetRefApplications(client.GetApplicationList());
    FileQuery query;
    if (sample) {
        query.AddFileType(sample->getFileType());
        query.SetCreatorSearchText(sample->getCreator());
        query.SetLocationState(sample->getLocationState());
    }
    ModalGrabber<QueryDialog> grabber([](QueryDialog *) {});
    dialog.Edit(query, client.IsUseUtc());
    return grabber.picture();
}

QPixmap grabSaveAsDialog(const std::optional<FileGroupData> &sample)
{
    KeldaSaveAsDlg dialog;
    dialog.setGroupName(sample ? sample->getFileGroupName() + QStringLiteral(" (copy)") : QStringLiteral("new group"));
    dialog.setFileName(QStringLiteral("notes.txt"));
    dialog.setVersion(sample ? sample->getVersion() : QStringLiteral("1.0"));
    dialog.setComment(sample ? sample->getComment() : QString());
    dialog.setDetail(sample ? sample->getDetail() : QString());
    dialog.setFileType(sample ? int(sample->getFileType()) : int(FT_Unknown));
    dialog.setFileTypeEnabled(true);
    dialog.show();
    QCoreApplication::processEvents();
    const QPixmap picture = dialog.grab();
    dialog.hide();
    return picture;
}

} // namespace

ScreenshotResult renderScreenshots(KeldaClient &client, const QString &dir)
{
    ScreenshotResult result;
    if (!QDir().mkpath(dir)) {
        result.error = QStringLiteral("%1: cannot create the folder").arg(dir);
        return result;
    }
    const QDir folder(dir);
    const std::optional<FileGroupData> sample = firstCentralGroup(client);
    if (sample)
        result.sampleGuid = sample->getGuid();
    if (!save(grabSelectDialog(client, false, sample), folder.filePath(QStringLiteral("fileselect-quick.png")), result))
        return result;
    if (!save(grabSelectDialog(client, true, sample), folder.filePath(QStringLiteral("fileselect-query.png")), result))
        return result;
    if (!save(grabQueryDialog(client, sample), folder.filePath(QStringLiteral("querydialog.png")), result))
        return result;
    save(grabSaveAsDialog(sample), folder.filePath(QStringLiteral("saveas.png")), result);
    return result;
}

} // namespace KeldaBrowser
