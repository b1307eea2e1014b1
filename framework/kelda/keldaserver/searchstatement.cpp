#include "searchstatement.h"

#include "archiveschema.h"
#include "filetype.h"
#include "trigramstatistics.h"

namespace Kelda {

namespace {

// In SearchRow::Column order.
const QString kSearchColumns = QStringLiteral(
    "g.fixed_result_xml, g.location_state, g.backup_time, g.creation_time, g.modification_time, g.life_cycle,"
    " g.reference_counter");

// Trigrams asked of the index without statistics.
constexpr int kMostTrigrams = 24;

QString escapeLike(const QString &text)
{
    QString escaped = text;
    escaped.replace(QLatin1Char('!'), QLatin1String("!!"));
    escaped.replace(QLatin1Char('%'), QLatin1String("!%"));
    escaped.replace(QLatin1Char('_'), QLatin1String("!_"));
    return QLatin1Char('%') + escaped + QLatin1Char('%');
}

QString marks(int count)
{
    QStringList list;
    for (int i = 0; i < count; ++i)
        list.append(QStringLiteral("?"));
    return list.join(QLatin1String(", "));
}

bool isWordCharacter(QChar c)
{
    return (c >= QLatin1Char('a') && c <= QLatin1Char('z')) || (c >= QLatin1Char('0') && c <= QLatin1Char('9'));
}

// pg_trgm takes trigrams from words of letters and digits, padded with
// blanks: of a trigram, it knows those of a word's inside, start or end.
// Letters beyond ASCII are words or not by the database's locale, so only
// ASCII ones are relied on.
bool pgTrgmKnows(const QString &trigram)
{
    const bool first = isWordCharacter(trigram.at(0));
    const bool middle = isWordCharacter(trigram.at(1));
    const bool last = isWordCharacter(trigram.at(2));
    return middle && (first || last);
}

// Spread over the whole text: the exact test sees to the rest.
QStringList spread(const QStringList &all)
{
    if (all.size() <= kMostTrigrams)
        return all;
    QStringList some;
    for (int i = 0; i < kMostTrigrams; ++i)
        some.append(all.at(i * (all.size() - 1) / (kMostTrigrams - 1)));
    return some;
}

} // namespace

QString SearchStatement::searchKey(const QString &value)
{
    const QString folded = value.toCaseFolded();
    return folded.isNull() ? QStringLiteral("") : folded;
}

SearchStatement::SearchStatement(const GroupSearch &criteria, bool postgres, const TrigramStatistics &statistics)
    : m_postgres(postgres)
    , m_statistics(statistics)
    , m_sql(QStringLiteral("SELECT ") + kSearchColumns + QStringLiteral(" FROM file_groups g WHERE 1 = 1"))
{
    addGroupTexts(criteria);
    addTypes(criteria.fileTypes);
    if (criteria.locationState != LS_Undefined) {
        m_sql +=
            QStringLiteral(" AND ") + ArchiveSchema::locationCriterion(QStringLiteral("g."), criteria.locationState);
        m_values.append(criteria.locationState);
    }
    addLockState(criteria.lockState);
    // Locks are few: SQLite reads them all.
    addLinkedText(QStringLiteral("group_locks"), QStringLiteral("holder_key"), QString(), criteria.lockUser);
    addLinkedText(QStringLiteral("group_references"), QStringLiteral("application_key"),
                  ArchiveSchema::ReferenceTextIndex, criteria.referencingApplication);
    addRange("backup_time", criteria.backup);
    addRange("creation_time", criteria.creation);
    addRange("life_cycle", criteria.lifeCycle);
    addRange("modification_time", criteria.modification);
    addOrder(criteria);
}

QString SearchStatement::indexTerm(const QString &filter, const QString &index, const QString &text) const
{
    const QString key = searchKey(text);
    // One FTS5 table holds the trigrams of all its columns: a trigram
    // costs every row that holds it in any of them, whichever column the
    // filter names.
    QStringList trigrams = m_statistics.rarest(index, key, [](const QString &) { return true; });
    if (trigrams.isEmpty())
        trigrams = spread(TrigramStatistics::trigramsOf(key));
    if (trigrams.isEmpty())
        return QString();
    QStringList quoted;
    for (QString trigram : qAsConst(trigrams)) {
        trigram.replace(QLatin1Char('"'), QLatin1String("\"\""));
        quoted.append(QLatin1Char('"') + trigram + QLatin1Char('"'));
    }
    const QString all = QLatin1Char('(') + quoted.join(QLatin1String(" AND ")) + QLatin1Char(')');
    return filter.isEmpty() ? all : filter + QLatin1String(" : ") + all;
}

QString SearchStatement::indexCandidates(const QString &index)
{
    // The rows changed since the index last took them are candidates too.
    return QStringLiteral("SELECT rowid FROM %1 WHERE %1 MATCH ? UNION ALL SELECT row_id FROM %2")
        .arg(index, ArchiveSchema::pendingTextTable(index));
}

QString SearchStatement::textTest(const QString &alias, const QString &column, const QString &text)
{
    const QString key = searchKey(text);
    // Where even the rarest trigram is common, pg_trgm does better with all
    // of its own, which know words of one or two characters too.
    const QStringList trigrams = m_postgres ? m_statistics.rarest(column, key, pgTrgmKnows, true) : QStringList();
    QString sql;
    for (const QString &trigram : trigrams) {
        sql += QStringLiteral(" AND %1.%2 LIKE ? ESCAPE '!'").arg(alias, column);
        m_values.append(escapeLike(trigram));
    }
    // An expression the index does not cover: once the index was asked
    // for the rare trigrams, the whole text is tested on the few rows left.
    const QString tested =
        trigrams.isEmpty() ? alias + QLatin1Char('.') + column : QStringLiteral("(%1.%2 || '')").arg(alias, column);
    sql += QStringLiteral(" AND %1 LIKE ? ESCAPE '!'").arg(tested);
    m_values.append(escapeLike(key));
    return sql;
}

void SearchStatement::addGroupTexts(const GroupSearch &criteria)
{
    const QList<QPair<QString, QString>> texts{{QStringLiteral("name_key"), criteria.name},
                                               {QStringLiteral("comment_key"), criteria.comment},
                                               {QStringLiteral("detail_key"), criteria.detail},
                                               {QStringLiteral("creator_key"), criteria.creator},
                                               {QStringLiteral("team_key"), criteria.team},
                                               {QStringLiteral("version_key"), criteria.version}};
    if (!m_postgres) {
        QStringList terms;
        for (const auto &text : texts) {
            const QString term =
                text.second.isEmpty() ? QString() : indexTerm(text.first, ArchiveSchema::GroupTextIndex, text.second);
            if (!term.isEmpty())
                terms.append(term);
        }
        if (!terms.isEmpty()) {
            m_sql += QStringLiteral(" AND g.id IN (%1)").arg(indexCandidates(ArchiveSchema::GroupTextIndex));
            m_values.append(terms.join(QLatin1String(" AND ")));
        }
    }
    for (const auto &text : texts) {
        if (!text.second.isEmpty())
            m_sql += textTest(QStringLiteral("g"), text.first, text.second);
    }
}

void SearchStatement::addTypes(const std::vector<int> &types)
{
    if (types.empty())
        return;
    m_sql += QStringLiteral(" AND g.file_type IN (%1)").arg(marks(int(types.size())));
    for (int type : types)
        m_values.append(type);
}

void SearchStatement::addLockState(int state)
{
    const QString locked = QStringLiteral("SELECT l.guid FROM group_locks l WHERE l.write_lock = %1");
    switch (state) {
    case LOCK_Free:
        m_sql += QStringLiteral(" AND NOT EXISTS (SELECT 1 FROM group_locks l WHERE l.guid = g.guid)");
        break;
    case LOCK_Read:
        m_sql += QStringLiteral(" AND g.guid IN (%1) AND g.guid NOT IN (%2)").arg(locked.arg(0), locked.arg(1));
        break;
    case LOCK_Write:
        m_sql += QStringLiteral(" AND g.guid IN (%1)").arg(locked.arg(1));
        break;
    default:
        break;
    }
}

void SearchStatement::addLinkedText(const QString &table, const QString &column, const QString &index,
                                    const QString &text)
{
    if (text.isEmpty())
        return;
    m_sql += QStringLiteral(" AND g.guid IN (SELECT t.guid FROM %1 t WHERE 1 = 1").arg(table);
    const QString term = m_postgres || index.isEmpty() ? QString() : indexTerm(QString(), index, text);
    if (!term.isEmpty()) {
        m_sql += QStringLiteral(" AND t.id IN (%1)").arg(indexCandidates(index));
        m_values.append(term);
    }
    m_sql += textTest(QStringLiteral("t"), column, text) + QLatin1Char(')');
}

void SearchStatement::addRange(const char *column, const GroupSearch::Range &bounds)
{
    if (bounds.min) {
        m_sql += QStringLiteral(" AND g.%1 >= ?").arg(QLatin1String(column));
        m_values.append(*bounds.min);
    }
    if (bounds.max) {
        m_sql += QStringLiteral(" AND g.%1 <= ?").arg(QLatin1String(column));
        m_values.append(*bounds.max);
    }
}

void SearchStatement::addOrder(const GroupSearch &criteria)
{
    // A text or lock criterion leaves few rows: fetching those and sorting
    // them beats walking the time index and testing every row it names,
    // which a planner would choose to spare the sort. The unary plus keeps
    // the index out of the ordering.
    const bool narrow = !criteria.name.isEmpty() || !criteria.comment.isEmpty() || !criteria.detail.isEmpty() ||
        !criteria.creator.isEmpty() || !criteria.team.isEmpty() || !criteria.version.isEmpty() ||
        !criteria.lockUser.isEmpty() || !criteria.referencingApplication.isEmpty() || criteria.lockState == LOCK_Read ||
        criteria.lockState == LOCK_Write;
    m_sql += narrow ? QStringLiteral(" ORDER BY +g.creation_time, g.guid")
                    : QStringLiteral(" ORDER BY g.creation_time, g.guid");
}

} // namespace Kelda
