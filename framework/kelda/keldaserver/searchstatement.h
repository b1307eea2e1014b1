#pragma once

#include "groupsearch.h"

#include <QString>
#include <QStringList>
#include <QVariantList>

namespace Kelda {

class TrigramStatistics;

// The statement of a group search, with a '?' for each value, ordered by
// creation time and GUID.
//
// Every text criterion keeps its exact test (the lower-cased key LIKE the
// escaped text). A trigram index narrows the rows first where the text is
// long enough for one: it is asked for the rarest few trigrams of the text
// (see TrigramStatistics), on SQLite from its FTS5 tables, on PostgreSQL
// by one LIKE per trigram that its pg_trgm index answers, the exact test
// then kept out of the index. An index finds a superset of the exact
// matches (it folds case per character, as the keys are folded already),
// so the results stay exactly those of the plain test. Time, type,
// location and lock criteria use ordinary indexes.
class SearchStatement
{
public:
    SearchStatement(const GroupSearch &criteria, bool postgres, const TrigramStatistics &statistics);

    const QString &sql() const { return m_sql; }
    const QVariantList &values() const { return m_values; }

    // Lower-cased form kept beside every searchable text.
    static QString searchKey(const QString &text);

private:
    void addGroupTexts(const GroupSearch &criteria);
    void addTypes(const std::vector<int> &types);
    void addLockState(int state);
    void addLinkedText(const QString &table, const QString &column, const QString &index, const QString &text);
    void addRange(const char *column, const GroupSearch::Range &bounds);
    void addOrder(const GroupSearch &criteria);
    // The exact test of one text on "alias.column", with PostgreSQL's index
    // conditions in front of it.
    QString textTest(const QString &alias, const QString &column, const QString &text);
    // The FTS5 query of an index for one text, its column filter in front
    // when named; empty when the text is too short for the index.
    QString indexTerm(const QString &filter, const QString &index, const QString &text) const;
    // The ids an SQLite trigram index offers for its term (one value).
    static QString indexCandidates(const QString &index);

    const bool m_postgres;
    const TrigramStatistics &m_statistics;
    QString m_sql;
    QVariantList m_values;
};

} // namespace Kelda
