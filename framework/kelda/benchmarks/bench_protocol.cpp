// Times the writing of request documents (AddFile, QueryFileGroups) by the
// request message classes, against a bare QXmlStreamWriter that writes the
// same tokens from a prepared list: the floor for any writer of these
// documents.

#include "benchtable.h"
#include "filequery.h"
#include "requestmessages.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <algorithm>
#include <functional>
#include <vector>

using namespace Kelda;

namespace {

// Nanoseconds per call of work, best of several rounds.
double NanosecondsPerCall(int calls, int rounds, const std::function<void()> &work)
{
    double best = 1e300;
    for (int r = 0; r < rounds; ++r) {
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < calls; ++i)
            work();
        best = std::min(best, double(timer.nsecsElapsed()) / calls);
    }
    return best;
}

// The document's tokens, read once, written again by a bare writer with
// the qualified names and texts as they are: the same document without the
// message classes.
class BareCopy
{
public:
    explicit BareCopy(const QByteArray &document)
    {
        QXmlStreamReader reader(document);
        while (!reader.atEnd()) {
            reader.readNext();
            Token token{reader.tokenType(), reader.qualifiedName().toString(), reader.text().toString(), {}};
            for (const QXmlStreamNamespaceDeclaration &declaration : reader.namespaceDeclarations())
                token.attributes.append(QStringLiteral("xmlns:") + declaration.prefix(),
                                        declaration.namespaceUri().toString());
            for (const QXmlStreamAttribute &attribute : reader.attributes())
                token.attributes.append(attribute.qualifiedName().toString(), attribute.value().toString());
            m_tokens.push_back(token);
        }
    }

    QByteArray Write() const
    {
        QByteArray bytes;
        QXmlStreamWriter writer(&bytes);
        for (const Token &token : m_tokens) {
            switch (token.type) {
            case QXmlStreamReader::StartDocument:
                writer.writeStartDocument();
                break;
            case QXmlStreamReader::StartElement:
                writer.writeStartElement(token.name);
                writer.writeAttributes(token.attributes);
                break;
            case QXmlStreamReader::Characters:
                writer.writeCharacters(token.text);
                break;
            case QXmlStreamReader::EndElement:
                writer.writeEndElement();
                break;
            case QXmlStreamReader::EndDocument:
                writer.writeEndDocument();
                break;
            default:
                break;
            }
        }
        return bytes;
    }

private:
    struct Token
    {
        QXmlStreamReader::TokenType type;
        QString name;
        QString text;
        QXmlStreamAttributes attributes;
    };
    std::vector<Token> m_tokens;
};

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Times the writing of AddFile and QueryFileGroups request documents, in ns per message, beside a bare\n"
        "QXmlStreamWriter writing the same tokens from a prepared list."));
    parser.addHelpOption();
    const QCommandLineOption quickOption(QStringLiteral("quick"), QStringLiteral("A short run (about a second)."));
    parser.addOption(quickOption);
    parser.process(app);
    const int calls = parser.isSet(quickOption) ? 2000 : 50000;
    const int rounds = parser.isSet(quickOption) ? 2 : 5;

    AddFileMessage addFile;
    addFile.SetGuid(QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e"));
    addFile.SetFileName(QStringLiteral("recording-2026-11-23.bin"));
    addFile.SetFileId(17);
    addFile.SetApplication(QStringLiteral("analyser"));

    FileQuery query;
    query.SetFileGroupSearchText(QStringLiteral("Recording*"));
    query.SetCreatorSearchText(QStringLiteral("operator"));
    query.SetCreationTimeMin(QDateTime(QDate(2025, 1, 1), QTime(0, 0), Qt::UTC));
    query.SetCreationTimeMax(QDateTime(QDate(2026, 1, 1), QTime(0, 0), Qt::UTC));
    query.SetLocationState(LS_Central);
    QueryFileGroupsMessage queryMessage;
    queryMessage.SetQuery(query);

    QTextStream out(stdout);
    out << "calls: " << calls << " per round, best of " << rounds << " rounds\n";
    const struct
    {
        const char *name;
        const KeldaClientSOAPMessage &message;
    } messages[] = {{"AddFile", addFile}, {"QueryFileGroups", queryMessage}};
    for (const auto &entry : messages) {
        const QByteArray document = entry.message.ToXml();
        const BareCopy bare(document);
        const double written = NanosecondsPerCall(calls, rounds, [&entry] { entry.message.ToXml(); });
        const double floor = NanosecondsPerCall(calls, rounds, [&bare] { bare.Write(); });
        out << QStringLiteral("%1 request (%2 bytes): %3 ns per message, bare copy %4 ns, ratio %5\n")
                   .arg(QLatin1String(entry.name))
                   .arg(document.size())
                   .arg(written, 0, 'f', 0)
                   .arg(floor, 0, 'f', 0)
                   .arg(written / floor, 0, 'f', 2);
        BenchTable::Row(QStringLiteral("write %1 request, ns/message").arg(QLatin1String(entry.name)),
                        BenchTable::Number(written, 0), BenchTable::Number(floor, 0) + QStringLiteral(" bare copy"),
                        BenchTable::Number(written / floor, 2), QStringLiteral("figure only"));
    }
    return 0;
}
