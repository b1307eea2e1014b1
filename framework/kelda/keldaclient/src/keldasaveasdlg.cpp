#include "keldasaveasdlg.h"

#include "filetype.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QDateTimeEdit>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QVBoxLayout>

namespace Kelda {

namespace {

constexpr int kEndOfLifeMonths = 1;

// Existing catalogues translate this form in the context "keldaSaveAsDlg".
QString trForm(const char *text)
{
    return QCoreApplication::translate("keldaSaveAsDlg", text);
}

} // namespace

class KeldaSaveAsDlgPrivate
{
public:
    explicit KeldaSaveAsDlgPrivate(KeldaSaveAsDlg *q);

    void AddRow(const char *labelName, const char *labelText, QWidget *field);
    QLineEdit *NewLineEdit(const char *objectName);
    void FillTypes();

    KeldaSaveAsDlg *q;
    QVBoxLayout *m_mainLayout;
    QFormLayout *m_formLayout;
    QComboBox *m_type;
    QLineEdit *m_group;
    QLineEdit *m_name;
    QLineEdit *m_version;
    QDateTimeEdit *m_endOfLife;
    QLineEdit *m_comment;
    QLineEdit *m_detail;
    QDialogButtonBox *m_buttons;
};

KeldaSaveAsDlgPrivate::KeldaSaveAsDlgPrivate(KeldaSaveAsDlg *q)
    : q(q)
    , m_mainLayout(new QVBoxLayout(q))
    , m_formLayout(new QFormLayout)
    , m_type(new QComboBox(q))
    , m_group(NewLineEdit("groupEdit"))
    , m_name(NewLineEdit("nameEdit"))
    , m_version(NewLineEdit("versionEdit"))
    , m_endOfLife(new QDateTimeEdit(q))
    , m_comment(NewLineEdit("commentEdit"))
    , m_detail(NewLineEdit("detailEdit"))
    , m_buttons(new QDialogButtonBox(QDialogButtonBox::Save | QDialogButtonBox::Cancel, Qt::Horizontal, q))
{
    m_mainLayout->setObjectName(QStringLiteral("mainLayout"));
    m_formLayout->setObjectName(QStringLiteral("formLayout"));
    m_buttons->setObjectName(QStringLiteral("buttonBox"));
    m_type->setObjectName(QStringLiteral("typeCombo"));
    m_type->setEnabled(false);
    m_endOfLife->setObjectName(QStringLiteral("endOfLifeEdit"));
    m_endOfLife->setDisplayFormat(QLocale::system().dateTimeFormat(QLocale::ShortFormat));
    m_endOfLife->setCalendarPopup(true);

    AddRow("typeLabel", QT_TRANSLATE_NOOP("keldaSaveAsDlg", "File Type"), m_type);
    AddRow("groupLabel", QT_TRANSLATE_NOOP("keldaSaveAsDlg", "File Group Name"), m_group);
    AddRow("nameLabel", QT_TRANSLATE_NOOP("keldaSaveAsDlg", "File Name"), m_name);
    AddRow("versionLabel", QT_TRANSLATE_NOOP("keldaSaveAsDlg", "Version"), m_version);
    AddRow("endOfLifeLabel", QT_TRANSLATE_NOOP("keldaSaveAsDlg", "Life cycle"), m_endOfLife);
    AddRow("commentLabel", QT_TRANSLATE_NOOP("keldaSaveAsDlg", "Comment"), m_comment);
    AddRow("detailLabel", QT_TRANSLATE_NOOP("keldaSaveAsDlg", "Detail"), m_detail);

    m_mainLayout->addLayout(m_formLayout);
    m_mainLayout->addWidget(m_buttons);
    QObject::connect(m_buttons, &QDialogButtonBox::accepted, q, &QDialog::accept);
    QObject::connect(m_buttons, &QDialogButtonBox::rejected, q, &QDialog::reject);
}

QLineEdit *KeldaSaveAsDlgPrivate::NewLineEdit(const char *objectName)
{
    auto *edit = new QLineEdit(q);
    edit->setObjectName(QLatin1String(objectName));
    return edit;
}

void KeldaSaveAsDlgPrivate::AddRow(const char *labelName, const char *labelText, QWidget *field)
{
    auto *label = new QLabel(trForm(labelText), q);
    label->setObjectName(QLatin1String(labelName));
    label->setBuddy(field);
    m_formLayout->addRow(label, field);
}

// Not the offered list: a group of any type, "Unknown" and "PCK File"
// included, may be saved.
void KeldaSaveAsDlgPrivate::FillTypes()
{
    for (int type = FT_Unknown; type <= FT_Last; ++type)
        m_type->addItem(FileTypeManager::GetText(FileType(type)), type);
}

// ---------------------------------------------------------------- KeldaSaveAsDlg

KeldaSaveAsDlg::KeldaSaveAsDlg(QWidget *parent, Qt::WindowFlags flags)
    : QDialog(parent, flags)
    , d(new KeldaSaveAsDlgPrivate(this))
{
    setObjectName(QStringLiteral("keldaSaveAsDlg"));
    setWindowTitle(trForm(QT_TRANSLATE_NOOP("keldaSaveAsDlg", "Save As...")));
    setModal(true);
    d->FillTypes();
    d->m_endOfLife->setDateTime(QDateTime::currentDateTime().addMonths(kEndOfLifeMonths));
}

KeldaSaveAsDlg::~KeldaSaveAsDlg() = default;

QString KeldaSaveAsDlg::groupName() const
{
    return d->m_group->text();
}
void KeldaSaveAsDlg::setGroupName(const QString &name)
{
    d->m_group->setText(name);
}
bool KeldaSaveAsDlg::groupNameEnabled() const
{
    return d->m_group->isEnabled();
}
void KeldaSaveAsDlg::setGroupNameEnabled(bool enabled)
{
    d->m_group->setEnabled(enabled);
}

QString KeldaSaveAsDlg::fileName() const
{
    return d->m_name->text();
}
void KeldaSaveAsDlg::setFileName(const QString &name)
{
    d->m_name->setText(name);
}
bool KeldaSaveAsDlg::fileNameEnabled() const
{
    return d->m_name->isEnabled();
}
void KeldaSaveAsDlg::setFileNameEnabled(bool enabled)
{
    d->m_name->setEnabled(enabled);
}

QString KeldaSaveAsDlg::version() const
{
    return d->m_version->text();
}
void KeldaSaveAsDlg::setVersion(const QString &version)
{
    d->m_version->setText(version);
}
bool KeldaSaveAsDlg::versionEnabled() const
{
    return d->m_version->isEnabled();
}
void KeldaSaveAsDlg::setVersionEnabled(bool enabled)
{
    d->m_version->setEnabled(enabled);
}

QString KeldaSaveAsDlg::comment() const
{
    return d->m_comment->text();
}
void KeldaSaveAsDlg::setComment(const QString &comment)
{
    d->m_comment->setText(comment);
}
bool KeldaSaveAsDlg::commentEnabled() const
{
    return d->m_comment->isEnabled();
}
void KeldaSaveAsDlg::setCommentEnabled(bool enabled)
{
    d->m_comment->setEnabled(enabled);
}

QString KeldaSaveAsDlg::detail() const
{
    return d->m_detail->text();
}
void KeldaSaveAsDlg::setDetail(const QString &detail)
{
    d->m_detail->setText(detail);
}
bool KeldaSaveAsDlg::detailEnabled() const
{
    return d->m_detail->isEnabled();
}
void KeldaSaveAsDlg::setDetailEnabled(bool enabled)
{
    d->m_detail->setEnabled(enabled);
}

QDateTime KeldaSaveAsDlg::endOfLife() const
{
    return d->m_endOfLife->dateTime();
}
void KeldaSaveAsDlg::setEndOfLife(const QDateTime &endOfLife)
{
    d->m_endOfLife->setDateTime(endOfLife);
}
bool KeldaSaveAsDlg::endOfLifeEnabled() const
{
    return d->m_endOfLife->isEnabled();
}
void KeldaSaveAsDlg::setEndOfLifeEnabled(bool enabled)
{
    d->m_endOfLife->setEnabled(enabled);
}

int KeldaSaveAsDlg::fileType() const
{
    return d->m_type->currentIndex() < 0 ? FT_Unknown : d->m_type->currentData().toInt();
}

void KeldaSaveAsDlg::setFileType(int fileType)
{
    const int entry = d->m_type->findData(fileType, Qt::UserRole, Qt::MatchExactly);
    d->m_type->setCurrentIndex(entry < 0 ? 0 : entry);
}

bool KeldaSaveAsDlg::fileTypeEnabled() const
{
    return d->m_type->isEnabled();
}
void KeldaSaveAsDlg::setFileTypeEnabled(bool enabled)
{
    d->m_type->setEnabled(enabled);
}

} // namespace Kelda
