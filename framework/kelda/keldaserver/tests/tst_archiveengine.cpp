#include "archivedatabase.h"
#include "archiveengine.h"
#include "archiveschema.h"
#include "digestpool.h"
#include "keldaxml.h"
#include "postgrescluster.h"
#include "replyfields.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <map>
#include <memory>

using namespace Kelda;

using Fields = QHash<QString, QStringList>;
Q_DECLARE_METATYPE(Fields)

namespace {

const QDateTime kLifeCycle(QDate(2031, 5, 6), QTime(7, 8, 9), Qt::UTC);
const QDateTime kTouched(QDate(2030, 1, 1), QTime(0, 0), Qt::UTC);

QString utcText(const QDateTime &time)
{
    return time.toUTC().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
}

QString newGuid()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

// An archive driven through its engine as the database threads drive it:
// every change in a savepoint of the transaction the test holds open,
// reads as they come.
class Archive
{
public:
    explicit Archive(const DatabaseLocation &database)
        : m_layout(m_base.path(), m_base.filePath(QStringLiteral("nas")), m_base.filePath(QStringLiteral("exchange")))
        , m_engine(m_store, m_layout)
    {
        m_store.setInstanceId(QStringLiteral("tests"));
        m_opened = m_store.open(database);
    }

    bool isOpen() const { return m_opened; }
    ArchiveStore &store() { return m_store; }
    QString base() const { return m_base.path(); }

    ReplyFields handle(const QString &command, const Fields &fields)
    {
        Request request;
        request.command = command;
        request.requestId = command;
        request.fields = fields;
        RequestOutcome outcome;
        RequestOrigin origin;
        if (DigestPool::readsFilesFor(command))
            origin.readings = std::make_shared<const std::vector<FileReading>>(
                DigestPool::read(m_store, m_layout, request, QString(), nullptr));
        if (ArchiveEngine::isReadOnly(command)) {
            m_engine.handle(request, origin, outcome);
            return ReplyFields::read(outcome.reply);
        }
        m_store.savepoint();
        bool handled = m_engine.handle(request, origin, outcome);
        if (!handled && !outcome.readFirstIn.isEmpty()) {
            // As a writer has it done: the pool reads the large file, and
            // the request runs again.
            m_store.rollbackToSavepoint();
            origin.readings = std::make_shared<const std::vector<FileReading>>(
                DigestPool::read(m_store, m_layout, request, outcome.readFirstIn, nullptr));
            outcome = RequestOutcome();
            m_store.savepoint();
            handled = m_engine.handle(request, origin, outcome);
        }
        if (handled)
            m_store.releaseSavepoint();
        else
            m_store.rollbackToSavepoint();
        return ReplyFields::read(outcome.reply);
    }

    // A group holding the file "f.bin" (id 1); empty on failure.
    QString createGroup(Fields fields)
    {
        const QString guid = newGuid();
        fields.insert(Tag::Guid, {guid});
        if (!fields.contains(Tag::FileType))
            fields.insert(Tag::FileType, {QString::number(FT_Image)});
        const ReplyFields created = handle(Tag::CreateFileGroup, fields);
        m_paths.insert(guid, created.value(Tag::Path));
        return created.error == KE_NoError && addFile(guid, QStringLiteral("f.bin"), 1).error == KE_NoError ? guid
                                                                                                            : QString();
    }

    ReplyFields addFile(const QString &guid, const QString &name, qint64 wantedId)
    {
        QFile file(m_paths.value(guid) + name);
        if (!file.open(QIODevice::WriteOnly) || file.write("data") != 4)
            return ReplyFields();
        file.close();
        return handle(Tag::AddFile,
                      {{Tag::Guid, {guid}}, {Tag::FileName, {name}}, {Tag::FileId, {QString::number(wantedId)}}});
    }

    ReplyFields lock(const QString &guid, const QString &holder, bool write)
    {
        return handle(Tag::RequestFile,
                      {{Tag::Guid, {guid}},
                       {Tag::FileId, {QStringLiteral("1")}},
                       {Tag::UserName, {holder}},
                       {Tag::WriteLock, {write ? QStringLiteral("true") : QStringLiteral("false")}}});
    }

    QStringList query(const Fields &criteria)
    {
        const ReplyFields reply = handle(Tag::QueryFileGroups, criteria);
        QStringList names = reply.values.value(Tag::FileGroupName);
        names.sort();
        return reply.error == KE_NoError ? names : QStringList{QStringLiteral("error %1").arg(reply.error)};
    }

private:
    QTemporaryDir m_base;
    StorageLayout m_layout;
    ArchiveStore m_store;
    ArchiveEngine m_engine;
    bool m_opened = false;
    QHash<QString, QString> m_paths;
};

QStringList texts(std::initializer_list<const char *> list)
{
    QStringList result;
    for (const char *text : list)
        result.append(QString::fromUtf8(text));
    return result;
}

QString identity(const QString &who)
{
    return QStringLiteral("10.0.0.1|app|") + who;
}

} // namespace

// The archive's rules, in process against a real store and its group
// directories: locks, references, deletions, file ids and what each query
// criterion matches, without sockets or threads.
class TestArchiveEngine : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void lockRules_data();
    void lockRules();
    void references_data();
    void references();
    void fileIds_data();
    void fileIds();
    void refusedWhileMoving_data();
    void refusedWhileMoving();
    void criteria_data();
    void criteria();
    void indexFollowsChanges_data();
    void indexFollowsChanges();
    void indexTakesNotedRowsInBatches();
    void groupDirectoriesStayApart_data();
    void groupDirectoriesStayApart();

private:
    void fillQueryArchive(Archive &archive);
    // Commits the rules archive's transaction and begins the next, as the
    // writer does from one batch to the next.
    bool commitRules();

    QTemporaryDir m_folder;
    std::unique_ptr<Archive> m_rules; // each case in a transaction rolled back after it
    std::map<QString, std::unique_ptr<Archive>> m_queried; // by backend, filled once
    QString m_postgresMissing;
};

void TestArchiveEngine::initTestCase()
{
    DatabaseLocation rules;
    rules.file = m_folder.filePath(QStringLiteral("rules.sqlite"));
    m_rules = std::make_unique<Archive>(rules);
    QVERIFY2(m_rules->isOpen(), qPrintable(m_rules->store().errorString()));

    DatabaseLocation queried;
    queried.file = m_folder.filePath(QStringLiteral("queried.sqlite"));
    m_queried[QStringLiteral("sqlite")] = std::make_unique<Archive>(queried);

    QString error;
    PostgresCluster *cluster = PostgresCluster::binDirectory().isEmpty() ? nullptr : PostgresCluster::shared(&error);
    DatabaseLocation postgres;
    if (cluster && cluster->createDatabase(QStringLiteral("engine"), &error) &&
        DatabaseLocation::parse(cluster->url(QStringLiteral("engine")), &postgres, &error))
        m_queried[QStringLiteral("postgresql")] = std::make_unique<Archive>(postgres);
    else
        m_postgresMissing = cluster ? error : PostgresCluster::missingText();
    if (!m_postgresMissing.isEmpty() && PostgresCluster::required())
        QFAIL(qPrintable(m_postgresMissing));

    for (auto &archive : m_queried) {
        QVERIFY2(archive.second->isOpen(), qPrintable(archive.second->store().errorString()));
        archive.second->store().begin();
        fillQueryArchive(*archive.second);
        QVERIFY(archive.second->store().commit());
    }
}

void TestArchiveEngine::init()
{
    m_rules->store().begin();
}

void TestArchiveEngine::cleanup()
{
    m_rules->store().rollback();
}

bool TestArchiveEngine::commitRules()
{
    const bool committed = m_rules->store().commit();
    m_rules->store().begin();
    return committed;
}

void TestArchiveEngine::lockRules_data()
{
    // Steps of identities A, B and C on one group: R and W request the
    // file for reading or writing, C closes, F deletes the file, D the
    // group; each with the error it must meet.
    QTest::addColumn<QStringList>("steps");
    QTest::newRow("readers share") << texts({"A R 0", "B R 0", "C R 0"});
    QTest::newRow("a reader keeps writers out") << texts({"A R 0", "B W 6", "C R 0"});
    QTest::newRow("a writer keeps everyone out") << texts({"A W 0", "B R 5", "C W 5"});
    QTest::newRow("the writer reads on and stays the writer") << texts({"A W 0", "A R 0", "B R 5"});
    QTest::newRow("the only reader may write") << texts({"A R 0", "A W 0", "B R 5"});
    QTest::newRow("close frees the group") << texts({"A W 0", "A C 0", "B W 0"});
    QTest::newRow("close by another frees nothing") << texts({"A W 0", "B C 22", "B R 5"});
    QTest::newRow("close releases only its own") << texts({"A R 0", "B R 0", "A C 0", "C W 6"});
    QTest::newRow("no deletion under a read lock") << texts({"A R 0", "A F 6", "B D 6", "A C 0", "A F 0"});
    QTest::newRow("no deletion under a write lock") << texts({"A W 0", "A D 5", "A C 0", "B D 0"});
}

void TestArchiveEngine::lockRules()
{
    QFETCH(QStringList, steps);
    const QString guid = m_rules->createGroup({});
    QVERIFY(!guid.isEmpty());
    for (const QString &step : steps) {
        const QStringList parts = step.split(QLatin1Char(' '));
        const QString who = identity(parts.at(0));
        const QString action = parts.at(1);
        ReplyFields reply;
        if (action == QLatin1String("R") || action == QLatin1String("W"))
            reply = m_rules->lock(guid, who, action == QLatin1String("W"));
        else if (action == QLatin1String("C"))
            reply = m_rules->handle(Tag::CloseFile, {{Tag::Guid, {guid}}, {Tag::UserName, {who}}});
        else if (action == QLatin1String("F"))
            reply = m_rules->handle(Tag::DeleteFile, {{Tag::Guid, {guid}}, {Tag::FileId, {QStringLiteral("1")}}});
        else
            reply = m_rules->handle(Tag::DeleteFileGroup, {{Tag::Guid, {guid}}});
        QVERIFY2(reply.error == parts.at(2).toInt(),
                 qPrintable(QStringLiteral("%1: error %2").arg(step).arg(reply.error)));
    }
}

void TestArchiveEngine::references_data()
{
    // +X adds a reference of application X, -X removes one, 0X removes
    // all of X's; each with its error. Then the group's counter.
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<int>("counter");
    QTest::newRow("counted per application") << texts({"+V 0", "+V 0", "+C 0"}) << 3;
    QTest::newRow("removed one at a time") << texts({"+V 0", "+V 0", "-V 0"}) << 1;
    QTest::newRow("none left to remove") << texts({"+V 0", "-V 0", "-V 32"}) << 0;
    QTest::newRow("another's cannot be removed") << texts({"+V 0", "-C 32"}) << 1;
    QTest::newRow("all of one application") << texts({"+V 0", "+V 0", "+C 0", "0V 0"}) << 1;
    QTest::newRow("an application must be named") << texts({"+ 31"}) << 0;
}

void TestArchiveEngine::references()
{
    QFETCH(QStringList, steps);
    QFETCH(int, counter);
    const QString guid = m_rules->createGroup({});
    QVERIFY(!guid.isEmpty());
    static const QHash<QChar, QString> commands{{QLatin1Char('+'), Tag::AddReference},
                                                {QLatin1Char('-'), Tag::RemoveReference},
                                                {QLatin1Char('0'), Tag::RemoveAllReferences}};
    for (const QString &step : steps) {
        const QStringList parts = step.split(QLatin1Char(' '));
        const ReplyFields reply = m_rules->handle(commands.value(parts.at(0).at(0)),
                                                  {{Tag::Guid, {guid}}, {Tag::Application, {parts.at(0).mid(1)}}});
        QVERIFY2(reply.error == parts.at(1).toInt(),
                 qPrintable(QStringLiteral("%1: error %2").arg(step).arg(reply.error)));
    }
    const ReplyFields meta = m_rules->handle(Tag::QueryMetaData, {{Tag::Guid, {guid}}});
    QCOMPARE(meta.value(Tag::ReferenceCounter).toInt(), counter);
}

void TestArchiveEngine::fileIds_data()
{
    // Files added after "f.bin" (id 1): the id asked for, and the id
    // given or the error; "delete N" deletes file N.
    QTest::addColumn<QStringList>("steps");
    QTest::newRow("none asked: the next") << texts({"0 2", "0 3"});
    QTest::newRow("a free one is given") << texts({"7 7", "0 8", "3 3"});
    QTest::newRow("a taken one is not") << texts({"1 2", "2 3"});
    QTest::newRow("below one: the next") << texts({"-5 2"});
    QTest::newRow("beyond the range: the next") << texts({"4294967297 2"});
    QTest::newRow("after the highest is deleted") << texts({"0 2", "0 3", "delete 3", "0 3"});
    QTest::newRow("no id left") << texts({"2147483647 2147483647", "0 e26"});
}

void TestArchiveEngine::fileIds()
{
    QFETCH(QStringList, steps);
    const QString guid = m_rules->createGroup({});
    QVERIFY(!guid.isEmpty());
    int added = 0;
    for (const QString &step : steps) {
        const QStringList parts = step.split(QLatin1Char(' '));
        if (parts.at(0) == QLatin1String("delete")) {
            QCOMPARE(m_rules->handle(Tag::DeleteFile, {{Tag::Guid, {guid}}, {Tag::FileId, {parts.at(1)}}}).error,
                     int(KE_NoError));
            continue;
        }
        const ReplyFields reply =
            m_rules->addFile(guid, QStringLiteral("added%1.bin").arg(++added), parts.at(0).toLongLong());
        if (parts.at(1).startsWith(QLatin1Char('e')))
            QCOMPARE(reply.error, parts.at(1).mid(1).toInt());
        else
            QCOMPARE(reply.value(Tag::FileId), parts.at(1));
    }
    QCOMPARE(m_rules->addFile(guid, QStringLiteral("f.bin"), 0).error, int(KE_AddFileFailed));
}

void TestArchiveEngine::refusedWhileMoving_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<Fields>("fields");
    const Fields fileOne{{Tag::FileId, {QStringLiteral("1")}}};
    QTest::newRow("delete file") << QString(Tag::DeleteFile) << fileOne;
    QTest::newRow("delete group") << QString(Tag::DeleteFileGroup) << Fields();
    QTest::newRow("request file") << QString(Tag::RequestFile)
                                  << Fields{{Tag::FileId, {QStringLiteral("1")}},
                                            {Tag::UserName, {identity(QStringLiteral("A"))}}};
    QTest::newRow("add file") << QString(Tag::AddFile) << Fields{{Tag::FileName, {QStringLiteral("f.bin")}}};
    QTest::newRow("move again") << QString(Tag::MoveToNas) << Fields();
}

void TestArchiveEngine::refusedWhileMoving()
{
    QFETCH(QString, command);
    QFETCH(Fields, fields);
    const QString guid = m_rules->createGroup({});
    QVERIFY(!guid.isEmpty());
    QCOMPARE(m_rules->handle(Tag::MoveToNas, {{Tag::Guid, {guid}}}).error, int(KE_NoError));
    fields.insert(Tag::Guid, {guid});
    QCOMPARE(m_rules->handle(command, fields).error, int(KE_InvalidLocationStateForCommand));
    QVERIFY(m_rules->handle(Tag::CheckFileGroupExists, {{Tag::Guid, {guid}}}).value(Tag::Exists) ==
            QLatin1String("true"));
}

namespace {

const QString kAlpha = QStringLiteral("Alpha Report");
const QString kBeta = QStringLiteral("beta");
const QString kGamma = QStringLiteral("Gamma 100%_done");
const QString kUmlaut = QStringLiteral("Ärger im Straßenbau");
const QString kSyntax = QStringLiteral("quote \"and\" colon: star*");
const QString kShort = QStringLiteral("xy");
const QString kQuoted = QStringLiteral("O'Brien\\path a!b");
const QString kNumbered = QStringLiteral("group 4242");
const QString kReversed = QStringLiteral("4242 group");

} // namespace

void TestArchiveEngine::fillQueryArchive(Archive &archive)
{
    struct Group
    {
        QString name;
        FileType type;
        const char *creator, *team, *version, *comment, *detail;
        QDateTime lifeCycle;
    };
    const Group groups[] = {
        {kAlpha, FT_AudioRecording, "alice", "red", "v1.0", "First COMMENT", "one", kLifeCycle},
        {kBeta, FT_Image, "bob", "blue", "v2.0", "", "two", kLifeCycle.addYears(9)},
        {kGamma, FT_Image, "alice", "red", "v1.5", "third", "three", {}},
        {kUmlaut, FT_ScanRecording, "Zoë", "grün", "3", "Überprüfung", "ÄÖÜ", {}},
        {kSyntax, FT_IfRecording, "carol", "red", "rc-1", "NEAR(x y)", "a OR b", {}},
        {kShort, FT_TransmissionSystem_Binary, "bob", "blue", "v9", "ab", "cd", {}},
        {kQuoted, FT_Image, "dave", "", "", "it's", "back\\slash", {}},
        {kNumbered, FT_RAD, "erin", "", "", "", "", {}},
        {kReversed, FT_RAD, "erin", "", "", "", "", {}},
    };
    QHash<QString, QString> guids;
    for (const Group &group : groups) {
        const QString guid = archive.createGroup({{Tag::FileGroupName, {group.name}},
                                                  {Tag::FileType, {QString::number(group.type)}},
                                                  {Tag::UserName, texts({group.creator})},
                                                  {Tag::TeamMembership, texts({group.team})},
                                                  {Tag::FileGroupVersion, texts({group.version})},
                                                  {Tag::Comment, texts({group.comment})},
                                                  {Tag::Detail, texts({group.detail})},
                                                  {Tag::LifeCycle, {utcText(group.lifeCycle)}}});
        QVERIFY2(!guid.isEmpty(), qPrintable(group.name));
        guids.insert(group.name, guid);
    }
    QCOMPARE(archive.lock(guids.value(kBeta), QStringLiteral("10.0.0.3|editor|BOB"), true).error, int(KE_NoError));
    QCOMPARE(archive.lock(guids.value(kGamma), QStringLiteral("10.0.0.1|viewer|Alice"), false).error, int(KE_NoError));
    for (const auto &reference :
         {std::make_pair(kBeta, QStringLiteral("Viewer")), std::make_pair(kBeta, QStringLiteral("Viewer")),
          std::make_pair(kGamma, QStringLiteral("Converter_X"))})
        QCOMPARE(archive
                     .handle(Tag::AddReference,
                             {{Tag::Guid, {guids.value(reference.first)}}, {Tag::Application, {reference.second}}})
                     .error,
                 int(KE_NoError));
    const std::optional<StoredGroup> gamma = archive.store().group(guids.value(kGamma));
    QVERIFY(gamma);
    archive.store().updateLocation(gamma->data.getGuid(), LS_Central, gamma->path, 100);
    archive.store().touch(guids.value(kAlpha), kTouched.toMSecsSinceEpoch());
    archive.store().touch(guids.value(kBeta), kTouched.addSecs(1).toMSecsSinceEpoch());
}

void TestArchiveEngine::criteria_data()
{
    QTest::addColumn<QString>("backend");
    QTest::addColumn<Fields>("criteria");
    QTest::addColumn<QStringList>("expected");
    const QStringList all{kAlpha, kBeta, kGamma, kUmlaut, kSyntax, kShort, kQuoted, kNumbered, kReversed};
    const auto allBut = [&all](const QStringList &left) {
        QStringList rest = all;
        for (const QString &name : left)
            rest.removeAll(name);
        return rest;
    };
    const auto text = [](QLatin1String tag, const char *value) { return Fields{{tag, texts({value})}}; };
    const auto bound = [](QLatin1String range, QLatin1String which, const QDateTime &time) {
        return Fields{{nestedKey(range, which), {utcText(time)}}};
    };
    // Criteria whose plain cases tst_serverqueries asks a real server on
    // either backend: here the edges of matching.
    const std::vector<std::tuple<const char *, Fields, QStringList>> rows{
        {"name, % alone", text(Tag::FileGroupNameSearchText, "%"), {kGamma}},
        {"name, the escape character", text(Tag::FileGroupNameSearchText, "a!b"), {kQuoted}},
        {"name, quote", text(Tag::FileGroupNameSearchText, "'bri"), {kQuoted}},
        {"name, backslash", text(Tag::FileGroupNameSearchText, "\\PA"), {kQuoted}},
        {"name of two characters", text(Tag::FileGroupNameSearchText, "xy"), {kShort}},
        {"name of one character", text(Tag::FileGroupNameSearchText, "Y"), {kShort}},
        {"name beyond ASCII", text(Tag::FileGroupNameSearchText, "ÄRGER"), {kUmlaut}},
        {"name with sharp s", text(Tag::FileGroupNameSearchText, "STRAßE"), {kUmlaut}},
        {"name, full-text syntax", text(Tag::FileGroupNameSearchText, "\"and\" colon:"), {kSyntax}},
        {"name, full-text star", text(Tag::FileGroupNameSearchText, "star*"), {kSyntax}},
        {"name, every trigram elsewhere", text(Tag::FileGroupNameSearchText, "group 4242"), {kNumbered}},
        {"name, shared part", text(Tag::FileGroupNameSearchText, "4242"), {kNumbered, kReversed}},
        {"comment, full-text NEAR", text(Tag::CommentSearchText, "near(x"), {kSyntax}},
        {"comment, quote", text(Tag::CommentSearchText, "it's"), {kQuoted}},
        {"detail, full-text OR", text(Tag::DetailSearchText, "A OR B"), {kSyntax}},
        {"detail, backslash", text(Tag::DetailSearchText, "k\\s"), {kQuoted}},
        {"creator beyond ASCII", text(Tag::User, "ZOË"), {kUmlaut}},
        {"team", text(Tag::TeamSearchText, "grÜn"), {kUmlaut}},
        {"lock user", text(Tag::LockUser, "|ALICE"), {kGamma}},
        {"lock user, part of both", text(Tag::LockUser, "10.0.0."), {kBeta, kGamma}},
        {"lock user, _ no wildcard", text(Tag::LockUser, "0_0"), {}},
        {"referencing application, short", text(Tag::ReferencingApplication, "x"), {kGamma}},
        {"referencing application, % no wildcard", text(Tag::ReferencingApplication, "r%x"), {}},
        {"life cycle from, inclusive", bound(Tag::LifeCycle, Tag::Min, kLifeCycle), {kAlpha, kBeta}},
        {"life cycle until, inclusive", bound(Tag::LifeCycle, Tag::Max, kLifeCycle), {kAlpha}},
        {"life cycle until a second before", bound(Tag::LifeCycle, Tag::Max, kLifeCycle.addSecs(-1)), {}},
        {"modified from, inclusive", bound(Tag::ModificationTime, Tag::Min, kTouched.addSecs(1)), {kBeta}},
        {"modified until, inclusive", bound(Tag::ModificationTime, Tag::Max, kTouched), allBut({kBeta})},
        // The location index leaves Local groups out.
        {"location, moved", Fields{{Tag::LocationState, {QString::number(LS_Central)}}}, {kGamma}},
        {"location, new", Fields{{Tag::LocationState, {QString::number(LS_Local)}}}, allBut({kGamma})},
    };
    Fields combined = text(Tag::FileGroupNameSearchText, "a");
    combined.insert(Tag::LockState, {QString::number(LOCK_Read)});
    combined.insert(nestedKey(Tag::FileTypeList, Tag::FileType), {QString::number(FT_Image)});
    for (const QString &backend : {QStringLiteral("sqlite"), QStringLiteral("postgresql")}) {
        for (const auto &row : rows)
            QTest::addRow("%s: %s", qPrintable(backend), std::get<0>(row))
                << backend << std::get<1>(row) << std::get<2>(row);
        QTest::addRow("%s: name, lock and type together", qPrintable(backend))
            << backend << combined << QStringList{kGamma};
    }
}

void TestArchiveEngine::criteria()
{
    QFETCH(QString, backend);
    QFETCH(Fields, criteria);
    QFETCH(QStringList, expected);
    const auto archive = m_queried.find(backend);
    if (archive == m_queried.end())
        QSKIP(qPrintable(m_postgresMissing));
    expected.sort();
    QCOMPARE(archive->second->query(criteria), expected);
}

void TestArchiveEngine::indexFollowsChanges_data()
{
    // A change, and the query that must see it once it is committed.
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("criterion");
    QTest::addColumn<bool>("found");
    QTest::addColumn<bool>("taken"); // by the index before the query, else only noted
    for (const bool taken : {false, true}) {
        const auto row = [taken](const char *name) {
            return &QTest::addRow("%s, %s", name, taken ? "taken by the index" : "noted");
        };
        *row("new group") << QString() << QString(Tag::FileGroupNameSearchText) << true << taken;
        *row("deleted group") << QString(Tag::DeleteFileGroup) << QString(Tag::FileGroupNameSearchText) << false
                              << taken;
        *row("new lock") << QString(Tag::RequestFile) << QString(Tag::LockUser) << true << taken;
        *row("closed lock") << QString(Tag::CloseFile) << QString(Tag::LockUser) << false << taken;
        *row("new reference") << QString(Tag::AddReference) << QString(Tag::ReferencingApplication) << true << taken;
        *row("removed reference") << QString(Tag::RemoveAllReferences) << QString(Tag::ReferencingApplication) << false
                                  << taken;
    }
}

void TestArchiveEngine::indexFollowsChanges()
{
    QFETCH(QString, change);
    QFETCH(QString, criterion);
    QFETCH(bool, found);
    QFETCH(bool, taken);
    const QString word = QStringLiteral("Zephyr%1").arg(QDateTime::currentMSecsSinceEpoch());
    // Queries run after the commit of their connection's changes, and so
    // does the test: the trigram indexes take a transaction's rows as it
    // commits.
    const auto commit = [this] { QVERIFY(commitRules()); };
    const QString guid = m_rules->createGroup({{Tag::FileGroupName, {word}}});
    QVERIFY(!guid.isEmpty());
    commit();
    // A query before the change builds the search's sample, which the
    // change leaves behind.
    QCOMPARE(m_rules->query({{criterion, {word}}}).size(), criterion == Tag::FileGroupNameSearchText ? 1 : 0);
    const Fields owner{{Tag::Guid, {guid}}, {Tag::UserName, {word}}, {Tag::Application, {word}}};
    if (change == Tag::CloseFile)
        QCOMPARE(m_rules->lock(guid, word, true).error, int(KE_NoError));
    if (change == Tag::RemoveAllReferences)
        QCOMPARE(m_rules->handle(Tag::AddReference, owner).error, int(KE_NoError));
    if (change == Tag::RequestFile)
        QCOMPARE(m_rules->lock(guid, word, false).error, int(KE_NoError));
    else if (!change.isEmpty())
        QCOMPARE(m_rules->handle(change, owner).error, int(KE_NoError));
    commit();
    if (taken)
        m_rules->store().flushTextIndexes(true);
    QCOMPARE(m_rules->query({{criterion, {word.toUpper()}}}).size(), found ? 1 : 0);
    // Each index holds exactly what its table does once it has taken the
    // rows noted over several commits.
    m_rules->store().flushTextIndexes(true);
    for (const QString &index : {ArchiveSchema::GroupTextIndex, ArchiveSchema::ReferenceTextIndex}) {
        try {
            m_rules->store().database().execute(
                QStringLiteral("INSERT INTO %1 (%1, rank) VALUES ('integrity-check', 1)").arg(index), KE_UnknownError);
        } catch (const RequestFailure &failure) {
            QFAIL(qPrintable(failure.text));
        }
    }
}

void TestArchiveEngine::indexTakesNotedRowsInBatches()
{
    ArchiveStore &store = m_rules->store();
    const auto noted = [&store] {
        ResultRows &rows =
            store.database().run(QStringLiteral("SELECT count(*) FROM %1")
                                     .arg(ArchiveSchema::pendingTextTable(ArchiveSchema::GroupTextIndex)),
                                 {}, KE_UnknownError);
        const qint64 count = rows.next() ? rows.number(0) : -1;
        rows.finish();
        return count;
    };
    const auto createAndCommit = [this] {
        QVERIFY(!m_rules->createGroup({}).isEmpty());
        QVERIFY(commitRules());
    };
    store.flushTextIndexes(true);
    for (int i = 1; i < ArchiveSchema::TextFlushRows; ++i)
        createAndCommit();
    QCOMPARE(noted(), qint64(ArchiveSchema::TextFlushRows - 1));
    createAndCommit();
    QCOMPARE(noted(), qint64(0));
}

void TestArchiveEngine::groupDirectoriesStayApart_data()
{
    // In the paths %1 stands for the existing group's GUID, %2 for the new
    // group's; an existing group stored as before version 9 may have any
    // directory.
    QTest::addColumn<QString>("backend");
    QTest::addColumn<QString>("existing");
    QTest::addColumn<bool>("stored");
    QTest::addColumn<QString>("wanted");
    QTest::addColumn<int>("error");
    for (const char *backend : {"sqlite", "postgresql"}) {
        const auto row = [backend](const char *name) -> QTestData & {
            return QTest::addRow("%s: %s", backend, name) << QString::fromLatin1(backend);
        };
        row("apart") << QStringLiteral("a/%1") << false << QStringLiteral("b/%2") << int(KE_NoError);
        row("in one named by its GUID alone")
            << QStringLiteral("c/%1") << false << QStringLiteral("c/%1/x/%2") << int(KE_CreatePathFailed);
        row("around one that names this GUID")
            << QStringLiteral("d/%2/%1") << false << QStringLiteral("d/%2") << int(KE_CreatePathFailed);
        row("in one stored before") << QStringLiteral("old") << true << QStringLiteral("old/%2")
                                    << int(KE_CreatePathFailed);
        row("around one stored before") << QStringLiteral("wide/%2/deep") << true << QStringLiteral("wide/%2")
                                        << int(KE_CreatePathFailed);
    }
}

void TestArchiveEngine::groupDirectoriesStayApart()
{
    QFETCH(QString, backend);
    QFETCH(QString, existing);
    QFETCH(bool, stored);
    QFETCH(QString, wanted);
    QFETCH(int, error);
    const auto found = m_queried.find(backend);
    if (found == m_queried.end())
        QSKIP(qPrintable(m_postgresMissing));
    Archive &archive = *found->second;
    // The query archive stays as it was filled.
    archive.store().begin();
    const auto rollback = qScopeGuard([&archive] { archive.store().rollback(); });
    const QString existingGuid = newGuid();
    const QString guid = newGuid();
    const auto directory = [&](QString pattern) {
        return archive.base() + QLatin1Char('/') +
            pattern.replace(QLatin1String("%1"), existingGuid).replace(QLatin1String("%2"), guid);
    };
    const auto create = [&](const QString &groupGuid, const QString &pattern) {
        return archive
            .handle(Tag::CreateFileGroup,
                    {{Tag::Guid, {groupGuid}},
                     {Tag::FileType, {QString::number(FT_Image)}},
                     {Tag::Path, {directory(pattern)}}})
            .error;
    };
    if (stored) {
        StoredGroup old;
        old.data.setGuid(existingGuid);
        old.data.setFileType(FT_Image);
        old.path = directory(existing);
        old.fixedResultXml = "stored";
        archive.store().addGroup(old, {QStringLiteral("tests"), existingGuid, FT_Image, old.path});
    } else {
        QCOMPARE(create(existingGuid, existing), int(KE_NoError));
    }
    QCOMPARE(create(guid, wanted), error);
}

QTEST_GUILESS_MAIN(TestArchiveEngine)
#include "tst_archiveengine.moc"
