#include "replyfields.h"

#include <QXmlStreamReader>

ReplyFields ReplyFields::read(const QByteArray &document)
{
    ReplyFields reply;
    QXmlStreamReader reader(document);
    QString element;
    // The envelope's header has a Version of its own.
    bool inHeader = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement()) {
            element = reader.name().toString();
            inHeader = inHeader || element == QLatin1String("Header");
        } else if (reader.isCharacters() && !reader.isWhitespace() && !inHeader) {
            reply.values[element].append(reader.text().toString());
        } else if (reader.isEndElement()) {
            inHeader = inHeader && reader.name() != QLatin1String("Header");
            element.clear();
        }
    }
    if (reply.values.contains(QStringLiteral("Error")))
        reply.error = reply.value(QStringLiteral("Error")).toInt();
    return reply;
}
