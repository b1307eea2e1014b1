#include "accessrules.h"
#include "archiveengine.h"
#include "keldaxml.h"
#include "request.h"

#include <QtTest>

using namespace Kelda;

Q_DECLARE_METATYPE(Kelda::Request)

// The ownership rules on their own: whom a certificate lets a request
// claim to be, and what it lets them do to whose groups.
class TestAccessRules : public QObject
{
    Q_OBJECT

private slots:
    void claims_data();
    void claims();
    void ownership_data();
    void ownership();
    void lockHolders();
};

namespace {

RequestOrigin as(const QString &user)
{
    RequestOrigin origin;
    origin.certificateUser = user;
    return origin;
}

Request request(QLatin1String command, const QString &userName, bool writeLock = false)
{
    Request r;
    r.command = command;
    r.fields[QString(Tag::UserName)] = QStringList{userName};
    if (writeLock)
        r.fields[QString(Tag::WriteLock)] = QStringList{QStringLiteral("true")};
    return r;
}

Request unnamed(QLatin1String command)
{
    Request r;
    r.command = command;
    return r;
}

const AccessRules kRules(true, {QStringLiteral("root")}, {QStringLiteral("audio")});

} // namespace

void TestAccessRules::claims_data()
{
    QTest::addColumn<bool>("identified");
    QTest::addColumn<Request>("request");
    QTest::addColumn<int>("code"); // 0: allowed
    QTest::newRow("own group") << true << request(Tag::CreateFileGroup, QStringLiteral("alice")) << 0;
    QTest::newRow("someone else's name") << true << request(Tag::CreateFileGroup, QStringLiteral("bob"))
                                         << int(KE_NoWritePermission);
    QTest::newRow("no name") << true << request(Tag::MoveToNas, QString()) << int(KE_NoWritePermission);
    QTest::newRow("own lock identity") << true << request(Tag::RequestFile, QStringLiteral("10.0.0.1|app|alice")) << 0;
    QTest::newRow("forged read lock") << true << request(Tag::RequestFile, QStringLiteral("10.0.0.1|app|bob"))
                                      << int(KE_NoReadPermission);
    QTest::newRow("forged write lock") << true << request(Tag::RequestFile, QStringLiteral("10.0.0.1|app|bob"), true)
                                       << int(KE_NoWritePermission);
    QTest::newRow("releasing another's lock")
        << true << request(Tag::CloseFile, QStringLiteral("10.0.0.2|app|bob")) << int(KE_NoWritePermission);
    QTest::newRow("a user part with bars")
        << true << request(Tag::CloseFile, QStringLiteral("a|b|alice|x")) << int(KE_NoWritePermission);
    QTest::newRow("a new group naming nobody") << true << unnamed(Tag::CreateFileGroup) << int(KE_NoWritePermission);
    QTest::newRow("a query naming someone") << true << request(Tag::QueryFileGroups, QStringLiteral("bob")) << 0;
    QTest::newRow("not identified") << false << request(Tag::CreateFileGroup, QStringLiteral("bob")) << 0;
}

void TestAccessRules::claims()
{
    QFETCH(bool, identified);
    QFETCH(Request, request);
    QFETCH(int, code);
    const AccessRules rules(identified, {}, {});
    const std::optional<AccessRules::Refusal> refusal = rules.checkClaims(request, as(QStringLiteral("alice")));
    QCOMPARE(refusal ? int(refusal->code) : 0, code);
}

void TestAccessRules::ownership_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<bool>("owner"); // may delete, move or export alice's group
    QTest::addColumn<bool>("importer");
    QTest::addColumn<bool>("converter");
    QTest::newRow("the creator") << QStringLiteral("alice") << true << false << false;
    QTest::newRow("another user") << QStringLiteral("bob") << false << false << false;
    QTest::newRow("an administrator") << QStringLiteral("root") << true << true << false;
    QTest::newRow("a converter") << QStringLiteral("audio") << false << false << true;
}

void TestAccessRules::ownership()
{
    QFETCH(QString, user);
    QFETCH(bool, owner);
    QFETCH(bool, importer);
    QFETCH(bool, converter);
    QCOMPARE(!kRules.checkOwner(QString(Tag::DeleteFileGroup), QStringLiteral("alice"), as(user)), owner);
    QCOMPARE(!kRules.checkImport(as(user)), importer);
    QCOMPARE(!kRules.checkConverter(as(user)), converter);
    // Without identified clients everything stays open.
    const AccessRules open;
    QVERIFY(!open.checkOwner(QString(Tag::DeleteFileGroup), QStringLiteral("alice"), as(user)));
    QVERIFY(!open.checkImport(as(user)) && !open.checkConverter(as(user)));
}

void TestAccessRules::lockHolders()
{
    const QString identity = QStringLiteral("10.0.0.1|viewer|alice");
    QCOMPARE(kRules.holderAsSeenBy(identity, as(QStringLiteral("alice"))), identity);
    QCOMPARE(kRules.holderAsSeenBy(identity, as(QStringLiteral("root"))), identity);
    QCOMPARE(kRules.holderAsSeenBy(identity, as(QStringLiteral("bob"))), QStringLiteral("alice"));
    QCOMPARE(AccessRules().holderAsSeenBy(identity, as(QStringLiteral("bob"))), identity);
}

QTEST_GUILESS_MAIN(TestAccessRules)
#include "tst_accessrules.moc"
