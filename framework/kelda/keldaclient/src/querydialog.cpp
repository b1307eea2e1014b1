#include "querydialog.h"

#include "filequery.h"
#include "filetype.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateTimeEdit>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QLocale>
#include <QPushButton>
#include <QVBoxLayout>

namespace Kelda {

namespace {

constexpr int kDefaultWindowDays = 2;
constexpr int kFileTypeColumns = 2;
constexpr int kNoneRow = 0;
constexpr int kSearchTermMinimumWidth = 200;

QDateTimeEdit *newDateTimeEdit(const QString &objectName, QWidget *parent)
{
    auto *edit = new QDateTimeEdit(parent);
    edit->setObjectName(objectName);
    edit->setDisplayFormat(QLocale::system().dateTimeFormat(QLocale::ShortFormat));
    edit->setCalendarPopup(true);
    return edit;
}

QListWidget *newChoiceList(const QString &objectName, QWidget *parent)
{
    auto *list = new QListWidget(parent);
    list->setObjectName(objectName);
    list->setSelectionMode(QAbstractItemView::SingleSelection);
    return list;
}

// Row 0 "None" means no restriction; the rest are the names offered.
void fillChoiceList(QListWidget *list, const QStringList &names)
{
    list->clear();
    list->addItem(QueryDialog::tr("None"));
    list->addItems(names);
    list->setCurrentRow(kNoneRow);
}

void selectChoice(QListWidget *list, const QString &name)
{
    const QList<QListWidgetItem *> found = list->findItems(name, Qt::MatchExactly);
    if (found.isEmpty())
        list->setCurrentRow(kNoneRow);
    else
        list->setCurrentItem(found.first());
}

QString readChoice(const QListWidget *list)
{
    return list->currentRow() > kNoneRow ? list->currentItem()->text() : QString();
}

} // namespace

// One switchable time range of the form.
struct RangeRow
{
    QCheckBox *enabled = nullptr;
    QDateTimeEdit *min = nullptr;
    QDateTimeEdit *max = nullptr;
};

class QueryDialogPrivate
{
public:
    explicit QueryDialogPrivate(QueryDialog *q);

    QLayout *BuildRanges();
    QWidget *BuildSearchTerms();
    QWidget *BuildFileTypes();
    QWidget *BuildStates();
    QWidget *BuildLists();
    QLayout *BuildButtons();
    QLineEdit *AddSearchTerm(QFormLayout *form, const QString &objectName, const QString &label);
    QList<QDateTimeEdit *> TimeEdits() const;

    void ResetControls();
    void ReadControls(FileQuery &query);
    void WriteControls(FileQuery &query);
    void AdjustDefaultDateTimeMax();
    QDateTime ReadDateTimeMin(QDateTimeEdit *edit) const;
    QDateTime ReadDateTimeMax(QDateTimeEdit *edit) const;
    void WriteDateTimeMin(QDateTimeEdit *edit, const QDateTime &value);
    void WriteDateTimeMax(QDateTimeEdit *edit, const QDateTime &value);

    QueryDialog *q;
    QDateTime m_defaultMin;
    QDateTime m_defaultMax;

    RangeRow m_creation;
    RangeRow m_modification;
    RangeRow m_lifeCycle;
    QLineEdit *m_comment = nullptr;
    QLineEdit *m_creator = nullptr;
    QLineEdit *m_detail = nullptr;
    QLineEdit *m_fileGroup = nullptr;
    QLineEdit *m_teamMembership = nullptr;
    QLineEdit *m_version = nullptr;
    // Index-aligned with the offered file types.
    QList<QCheckBox *> m_fileTypeBoxes;
    QComboBox *m_location = nullptr;
    QComboBox *m_lockState = nullptr;
    QListWidget *m_lockUsers = nullptr;
    QListWidget *m_applications = nullptr;
};

QueryDialogPrivate::QueryDialogPrivate(QueryDialog *q)
    : q(q)
    , m_defaultMin(QDateTime::currentDateTime().addDays(-kDefaultWindowDays))
{ }

QLayout *QueryDialogPrivate::BuildRanges()
{
    auto *grid = new QGridLayout;
    const auto addRow = [this, grid](RangeRow &row, const QString &label, const QString &minName,
                                     const QString &maxName) {
        const int line = grid->rowCount();
        row.enabled = new QCheckBox(label, q);
        row.min = newDateTimeEdit(minName, q);
        row.max = newDateTimeEdit(maxName, q);
        grid->addWidget(row.enabled, line, 0);
        grid->addWidget(new QLabel(QueryDialog::tr("from "), q), line, 1, Qt::AlignRight);
        grid->addWidget(row.min, line, 2);
        grid->addWidget(new QLabel(QueryDialog::tr("to"), q), line, 3);
        grid->addWidget(row.max, line, 4);
    };
    addRow(m_creation, QueryDialog::tr("Creation time"), QStringLiteral("CreationTimeMin"),
           QStringLiteral("CreationTimeMax"));
    addRow(m_modification, QueryDialog::tr("Modification time"), QStringLiteral("ModificationTimeMin"),
           QStringLiteral("ModificationTimeMax"));
    addRow(m_lifeCycle, QueryDialog::tr("Life cycle"), QStringLiteral("LifeCycleMin"), QStringLiteral("LifeCycleMax"));
    grid->setColumnStretch(5, 1);
    return grid;
}

QLineEdit *QueryDialogPrivate::AddSearchTerm(QFormLayout *form, const QString &objectName, const QString &label)
{
    auto *edit = new QLineEdit(q);
    edit->setObjectName(objectName);
    edit->setMinimumWidth(kSearchTermMinimumWidth);
    form->addRow(label, edit);
    return edit;
}

QWidget *QueryDialogPrivate::BuildSearchTerms()
{
    auto *group = new QGroupBox(QueryDialog::tr("Search terms"), q);
    auto *form = new QFormLayout(group);
    m_comment = AddSearchTerm(form, QStringLiteral("CommentEdit"), QueryDialog::tr("Comment:"));
    m_creator = AddSearchTerm(form, QStringLiteral("CreatorEdit"), QueryDialog::tr("Creator:"));
    m_detail = AddSearchTerm(form, QStringLiteral("DetailEdit"), QueryDialog::tr("Detail:"));
    m_fileGroup = AddSearchTerm(form, QStringLiteral("FileGroupEdit"), QueryDialog::tr("File group:"));
    m_teamMembership = AddSearchTerm(form, QStringLiteral("TeamMembershipEdit"), QueryDialog::tr("Team membership:"));
    m_version = AddSearchTerm(form, QStringLiteral("VersionEdit"), QueryDialog::tr("Version:"));
    return group;
}

QWidget *QueryDialogPrivate::BuildFileTypes()
{
    auto *group = new QGroupBox(QueryDialog::tr("File type"), q);
    auto *grid = new QGridLayout(group);
    FileTypeManager *types = FileTypeManager::Instance();
    for (int i = 0; i < types->GetCount(); ++i) {
        const QString text = types->GetTextByIndex(i);
        auto *box = new QCheckBox(text, group);
        // Object names only identify the boxes; blanks become underscores.
        box->setObjectName(QStringLiteral("Type_%1").arg(QString(text).replace(QLatin1Char(' '), QLatin1Char('_'))));
        grid->addWidget(box, i / kFileTypeColumns, i % kFileTypeColumns);
        m_fileTypeBoxes.append(box);
    }
    return group;
}

QWidget *QueryDialogPrivate::BuildStates()
{
    auto *row = new QWidget(q);
    auto *layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);

    // The entries are in value order, so that an index is the state itself.
    auto *locationGroup = new QGroupBox(QueryDialog::tr("Location"), row);
    m_location = new QComboBox(locationGroup);
    for (int state = 0; state <= LS_Last; ++state)
        m_location->addItem(LocationStateString::GetText(LocationState(state)));
    m_location->setObjectName(QStringLiteral("LocationComboBox %1").arg(m_location->count()));
    (new QVBoxLayout(locationGroup))->addWidget(m_location);

    auto *lockGroup = new QGroupBox(QueryDialog::tr("Lock state"), row);
    m_lockState = new QComboBox(lockGroup);
    for (int state = 0; state <= LOCK_Last; ++state)
        m_lockState->addItem(LockStateString::GetText(LockState(state)));
    m_lockState->setObjectName(QStringLiteral("LockStateComboBox %1").arg(m_lockState->count()));
    (new QVBoxLayout(lockGroup))->addWidget(m_lockState);

    layout->addWidget(locationGroup);
    layout->addWidget(lockGroup);
    return row;
}

QWidget *QueryDialogPrivate::BuildLists()
{
    auto *row = new QWidget(q);
    auto *layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);

    auto *userGroup = new QGroupBox(QueryDialog::tr("Lock user"), row);
    m_lockUsers = newChoiceList(QStringLiteral("LockUserList"), userGroup);
    (new QVBoxLayout(userGroup))->addWidget(m_lockUsers);

    auto *applicationGroup = new QGroupBox(QueryDialog::tr("Referencing application"), row);
    m_applications = newChoiceList(QStringLiteral("RefApplicationList"), applicationGroup);
    (new QVBoxLayout(applicationGroup))->addWidget(m_applications);

    fillChoiceList(m_lockUsers, QStringList());
    fillChoiceList(m_applications, QStringList());
    layout->addWidget(userGroup);
    layout->addWidget(applicationGroup);
    return row;
}

QLayout *QueryDialogPrivate::BuildButtons()
{
    auto *reset = new QPushButton(QueryDialog::tr("Reset"), q);
    auto *accept = new QPushButton(QueryDialog::tr("OK"), q);
    auto *cancel = new QPushButton(QueryDialog::tr("Cancel"), q);
    reset->setObjectName(QStringLiteral("ResetButton"));
    accept->setObjectName(QStringLiteral("OkButton"));
    cancel->setObjectName(QStringLiteral("CancelButton"));
    reset->setAutoDefault(false);
    cancel->setAutoDefault(false);
    accept->setDefault(true);
    QObject::connect(reset, &QPushButton::clicked, q, [this] { ResetControls(); });
    QObject::connect(accept, &QPushButton::clicked, q, &QDialog::accept);
    QObject::connect(cancel, &QPushButton::clicked, q, &QDialog::reject);

    auto *buttons = new QHBoxLayout;
    buttons->addWidget(reset);
    buttons->addStretch();
    buttons->addWidget(accept);
    buttons->addWidget(cancel);
    return buttons;
}

QList<QDateTimeEdit *> QueryDialogPrivate::TimeEdits() const
{
    return {m_creation.min, m_creation.max, m_modification.min, m_modification.max, m_lifeCycle.min, m_lifeCycle.max};
}

// The window moves on by whole days: its upper end is the first day step from
// the lower default that is not before now.
void QueryDialogPrivate::AdjustDefaultDateTimeMax()
{
    const QDateTime now = QDateTime::currentDateTime();
    m_defaultMax = m_defaultMin;
    while (m_defaultMax < now)
        m_defaultMax = m_defaultMax.addDays(1);
}

QDateTime QueryDialogPrivate::ReadDateTimeMin(QDateTimeEdit *edit) const
{
    const QDateTime fallback = m_defaultMin.toTimeSpec(edit->timeSpec());
    return edit->dateTime() != fallback ? edit->dateTime() : fallback;
}

QDateTime QueryDialogPrivate::ReadDateTimeMax(QDateTimeEdit *edit) const
{
    const QDateTime fallback = m_defaultMax.toTimeSpec(edit->timeSpec());
    return edit->dateTime() != fallback ? edit->dateTime() : fallback;
}

// An edit takes date and time as they are and applies its own time spec, so
// the value is brought into that spec first.
void QueryDialogPrivate::WriteDateTimeMin(QDateTimeEdit *edit, const QDateTime &value)
{
    edit->setDateTime(value.toTimeSpec(edit->timeSpec()));
}

void QueryDialogPrivate::WriteDateTimeMax(QDateTimeEdit *edit, const QDateTime &value)
{
    edit->setDateTime(value.toTimeSpec(edit->timeSpec()));
}

void QueryDialogPrivate::WriteControls(FileQuery &query)
{
    const auto writeRange = [this](const RangeRow &row, const QDateTime &min, const QDateTime &max) {
        if (min.isValid())
            WriteDateTimeMin(row.min, min);
        if (max.isValid())
            WriteDateTimeMax(row.max, max);
    };
    writeRange(m_creation, query.GetCreationTimeMin(), query.GetCreationTimeMax());
    writeRange(m_modification, query.GetModificationTimeMin(), query.GetModificationTimeMax());
    writeRange(m_lifeCycle, query.GetLifeCycleTimeMin(), query.GetLifeCycleTimeMax());

    m_comment->setText(query.GetCommentSearchText());
    m_creator->setText(query.GetCreatorSearchText());
    m_detail->setText(query.GetDetailSearchText());
    m_fileGroup->setText(query.GetFileGroupSearchText());
    m_teamMembership->setText(query.GetTeamMembershipSearchText());
    m_version->setText(query.GetVersionSearchText());

    FileTypeManager *types = FileTypeManager::Instance();
    for (int i = 0; i < m_fileTypeBoxes.size(); ++i)
        m_fileTypeBoxes.at(i)->setChecked(query.IsFileTypeListed(types->GetType(i)));

    m_location->setCurrentIndex(query.GetLocationState());
    m_lockState->setCurrentIndex(query.GetLockState());
    selectChoice(m_lockUsers, query.GetLockUser());
    selectChoice(m_applications, query.GetReferencingApplication());
}

void QueryDialogPrivate::ReadControls(FileQuery &query)
{
    // An unchecked range is open on both sides, whatever its edits show.
    const auto readRange = [this](const RangeRow &row, auto setMin, auto setMax, FileQuery &target) {
        const bool on = row.enabled->isChecked();
        (target.*setMin)(on ? ReadDateTimeMin(row.min) : QDateTime());
        (target.*setMax)(on ? ReadDateTimeMax(row.max) : QDateTime());
    };
    readRange(m_creation, &FileQuery::SetCreationTimeMin, &FileQuery::SetCreationTimeMax, query);
    readRange(m_lifeCycle, &FileQuery::SetLifeCycleTimeMin, &FileQuery::SetLifeCycleTimeMax, query);
    readRange(m_modification, &FileQuery::SetModificationTimeMin, &FileQuery::SetModificationTimeMax, query);

    query.SetCommentSearchText(m_comment->text().trimmed());
    query.SetCreatorSearchText(m_creator->text().trimmed());
    query.SetDetailSearchText(m_detail->text().trimmed());
    query.SetFileGroupSearchText(m_fileGroup->text().trimmed());
    query.SetTeamMembershipSearchText(m_teamMembership->text().trimmed());
    query.SetVersionSearchText(m_version->text().trimmed());

    query.ClearFileTypeList();
    FileTypeManager *types = FileTypeManager::Instance();
    for (int i = 0; i < m_fileTypeBoxes.size(); ++i) {
        if (m_fileTypeBoxes.at(i)->isChecked())
            query.AddFileType(types->GetType(i));
    }

    query.SetLocationState(LocationState(m_location->currentIndex()));
    query.SetLockState(LockState(m_lockState->currentIndex()));
    query.SetLockUser(readChoice(m_lockUsers));
    query.SetReferencingApplication(readChoice(m_applications));
}

void QueryDialogPrivate::ResetControls()
{
    for (const RangeRow *row : {&m_creation, &m_modification, &m_lifeCycle}) {
        WriteDateTimeMin(row->min, m_defaultMin);
        WriteDateTimeMax(row->max, m_defaultMax);
    }
    for (QLineEdit *edit : {m_comment, m_creator, m_detail, m_fileGroup, m_teamMembership, m_version})
        edit->clear();
    for (QCheckBox *box : qAsConst(m_fileTypeBoxes))
        box->setChecked(false);
    m_lockUsers->setCurrentRow(kNoneRow);
    m_applications->setCurrentRow(kNoneRow);
}

// ---------------------------------------------------------------- QueryDialog

QueryDialog::QueryDialog(QWidget *parent)
    : QDialog(parent)
    , d(new QueryDialogPrivate(this))
{
    setWindowTitle(tr("Edit query"));
    setObjectName(QStringLiteral("EditQueryDialog"));
    setWindowFlags(windowFlags() & ~Qt::WindowContextHelpButtonHint);

    auto *middle = new QHBoxLayout;
    middle->addWidget(d->BuildSearchTerms());
    middle->addWidget(d->BuildFileTypes(), 1);

    auto *layout = new QVBoxLayout(this);
    layout->addLayout(d->BuildRanges());
    layout->addLayout(middle);
    layout->addWidget(d->BuildStates());
    layout->addWidget(d->BuildLists(), 1);
    layout->addLayout(d->BuildButtons());

    d->AdjustDefaultDateTimeMax();
    d->ResetControls();
}

QueryDialog::~QueryDialog() = default;

bool QueryDialog::Edit(FileQuery &query, bool useUtc)
{
    for (QDateTimeEdit *edit : d->TimeEdits())
        edit->setTimeSpec(useUtc ? Qt::UTC : Qt::LocalTime);
    d->AdjustDefaultDateTimeMax();
    d->WriteControls(query);
    if (exec() != QDialog::Accepted)
        return false;
    d->ReadControls(query);
    return true;
}

void QueryDialog::SetLockUsers(const QStringList &users)
{
    fillChoiceList(d->m_lockUsers, users);
}

void QueryDialog::SetRefApplications(const QStringList &applications)
{
    fillChoiceList(d->m_applications, applications);
}

} // namespace Kelda

// The private slot is called by the meta-object code, which needs the
// private class.
#include "moc_querydialog.cpp"
