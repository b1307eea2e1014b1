#include "queryoptions.h"

#include <QCommandLineParser>

#include <functional>
#include <vector>

using namespace Kelda;

namespace KeldaCli {

namespace {

using TextSetter = void (FileQuery::*)(const QString &);
using TimeSetter = void (FileQuery::*)(const QDateTime &);

struct TextCriterion
{
    const char *option;
    const char *help;
    TextSetter set;
};

struct TimeCriterion
{
    const char *option;
    const char *help;
    TimeSetter set;
};

const std::vector<TextCriterion> kTextCriteria = {
    {"name", "File group name contains TEXT.", &FileQuery::SetFileGroupSearchText},
    {"comment", "Comment contains TEXT.", &FileQuery::SetCommentSearchText},
    {"creator", "Creator contains TEXT.", &FileQuery::SetCreatorSearchText},
    {"detail", "Detail contains TEXT.", &FileQuery::SetDetailSearchText},
    {"team", "Team membership contains TEXT.", &FileQuery::SetTeamMembershipSearchText},
    {"version", "Version contains TEXT.", &FileQuery::SetVersionSearchText},
    {"lock-user", "Locked by user TEXT.", &FileQuery::SetLockUser},
    {"referenced-by", "Referenced by application TEXT.", &FileQuery::SetReferencingApplication},
};

const std::vector<TimeCriterion> kTimeCriteria = {
    {"created-from", "Created at or after TIME.", &FileQuery::SetCreationTimeMin},
    {"created-to", "Created at or before TIME.", &FileQuery::SetCreationTimeMax},
    {"modified-from", "Modified at or after TIME.", &FileQuery::SetModificationTimeMin},
    {"modified-to", "Modified at or before TIME.", &FileQuery::SetModificationTimeMax},
    {"backup-from", "Backed up at or after TIME.", &FileQuery::SetBackupTimeMin},
    {"backup-to", "Backed up at or before TIME.", &FileQuery::SetBackupTimeMax},
    {"lifecycle-from", "Life cycle ends at or after TIME.", &FileQuery::SetLifeCycleTimeMin},
    {"lifecycle-to", "Life cycle ends at or before TIME.", &FileQuery::SetLifeCycleTimeMax},
};

const QString kType = QStringLiteral("type");
const QString kLocation = QStringLiteral("location");
const QString kLock = QStringLiteral("lock");

// A decimal value up to `last`, or the text that `textOf` gives a value.
bool parseEnumeration(const QString &text, int last, const std::function<QString(int)> &textOf, int &value)
{
    bool isNumber = false;
    const int number = text.trimmed().toInt(&isNumber, 10);
    if (isNumber) {
        if (number < 0 || number > last)
            return false;
        value = number;
        return true;
    }
    for (int candidate = 0; candidate <= last; ++candidate) {
        if (textOf(candidate).compare(text.trimmed(), Qt::CaseInsensitive) == 0) {
            value = candidate;
            return true;
        }
    }
    return false;
}

QString invalidValue(const QString &option, const QString &value)
{
    return QStringLiteral("invalid value '%1' for --%2").arg(value, option);
}

} // namespace

void addQueryOptions(QCommandLineParser &parser)
{
    for (const TextCriterion &criterion : kTextCriteria)
        parser.addOption({QLatin1String(criterion.option), QLatin1String(criterion.help), QStringLiteral("TEXT")});
    for (const TimeCriterion &criterion : kTimeCriteria)
        parser.addOption({QLatin1String(criterion.option), QLatin1String(criterion.help), QStringLiteral("TIME")});
    parser.addOption(
        {kType, QStringLiteral("File type TYPE, a number or its text; repeat for several."), QStringLiteral("TYPE")});
    parser.addOption({kLocation, QStringLiteral("Location state STATE, a number or its text (Local, Central, ...)."),
                      QStringLiteral("STATE")});
    parser.addOption({kLock, QStringLiteral("Lock state STATE: Free, Read or Write."), QStringLiteral("STATE")});
}

bool queryFromOptions(const QCommandLineParser &parser, FileQuery &query, QString &error)
{
    for (const TextCriterion &criterion : kTextCriteria) {
        const QString option = QLatin1String(criterion.option);
        if (parser.isSet(option))
            (query.*criterion.set)(parser.value(option));
    }
    for (const TimeCriterion &criterion : kTimeCriteria) {
        const QString option = QLatin1String(criterion.option);
        if (!parser.isSet(option))
            continue;
        const QDateTime time = parseTime(parser.value(option));
        if (!time.isValid()) {
            error =
                invalidValue(option, parser.value(option)) + QStringLiteral(" (use yyyy-MM-dd or yyyy-MM-dd hh:mm:ss)");
            return false;
        }
        (query.*criterion.set)(time);
    }
    for (const QString &text : parser.values(kType)) {
        FileType type;
        if (!parseFileType(text, type)) {
            error = invalidValue(kType, text);
            return false;
        }
        query.AddFileType(type);
    }
    if (parser.isSet(kLocation)) {
        LocationState state;
        if (!parseLocationState(parser.value(kLocation), state)) {
            error = invalidValue(kLocation, parser.value(kLocation));
            return false;
        }
        query.SetLocationState(state);
    }
    if (parser.isSet(kLock)) {
        LockState state;
        if (!parseLockState(parser.value(kLock), state)) {
            error = invalidValue(kLock, parser.value(kLock));
            return false;
        }
        query.SetLockState(state);
    }
    return true;
}

bool parseFileType(const QString &text, FileType &type)
{
    int value = 0;
    if (!parseEnumeration(
            text, FT_Last, [](int v) { return FileTypeManager::GetText(FileType(v)); }, value))
        return false;
    type = FileType(value);
    return true;
}

bool parseLocationState(const QString &text, LocationState &state)
{
    int value = 0;
    if (!parseEnumeration(
            text, LS_Last, [](int v) { return LocationStateString::GetText(LocationState(v)); }, value))
        return false;
    state = LocationState(value);
    return true;
}

bool parseLockState(const QString &text, LockState &state)
{
    int value = 0;
    if (!parseEnumeration(
            text, LOCK_Last, [](int v) { return LockStateString::GetText(LockState(v)); }, value))
        return false;
    state = LockState(value);
    return true;
}

QDateTime parseTime(const QString &text)
{
    const QDateTime time = FileQuery::getValidDateTimeFromString(text.trimmed());
    if (time.isValid())
        return time;
    const QDate date = QDate::fromString(text.trimmed(), QStringLiteral("yyyy-MM-dd"));
    return date.isValid() ? QDateTime(date, QTime(0, 0)) : QDateTime();
}

} // namespace KeldaCli
