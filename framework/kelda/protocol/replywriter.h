#pragma once

#include "commanddescriptor.h"

#include <QBuffer>
#include <QByteArray>
#include <QLatin1String>
#include <QString>
#include <QStringList>
#include <QXmlStreamWriter>

namespace Kelda {

// Writes one reply document: the envelope with the request id in its header
// and one body element in the message namespace, the mirror image of what
// the client's reply readers expect.
//
// Children are written with the literal "m:" prefix; the namespace is
// declared once, on the body element.
class ReplyWriter
{
public:
    // bodyElement is the local name, e.g. "AddFileReply" or "ConvertFileGroup".
    ReplyWriter(const QString &bodyElement, const QString &requestId);

    // "<command>Reply", the element that answers a command.
    static QString replyElement(const QString &command);

    void writeText(QLatin1String name, const QString &value);
    void writeNumber(QLatin1String name, qint64 value);
    void writeBool(QLatin1String name, bool value);
    void writeStartElement(QLatin1String name);
    void writeEndElement();
    // Error, and ErrorString when there is a text.
    void writeStatus(int error, const QString &errorString);
    // One record of a command whose reply lists records: the descriptor's
    // record element holding each of its fields, values in the same order.
    void writeRecord(const CommandDescriptor &command, const QStringList &values);

    QXmlStreamWriter &xml() { return m_writer; }

    // Bytes of finished child elements, made by appendTextElement and the
    // like, written as they are. For results too large for the writer's
    // per-element cost.
    void writeRaw(const QByteArray &bytes);
    // Appends <qualifiedName>escaped value</qualifiedName> in UTF-8.
    static void appendTextElement(QByteArray &out, const QByteArray &qualifiedName, const QString &value);
    // The same for a value that needs no escaping: digits, times.
    static void appendPlainElement(QByteArray &out, const QByteArray &qualifiedName, const QByteArray &value);

    // Hands out the bytes written so far and goes on from none, so that a
    // large reply can leave in pieces: the pieces in order, then finish(),
    // are the document.
    QByteArray takeBytes();

    // Closes the document and hands out its bytes (those not taken before).
    QByteArray finish();

    // A complete reply that carries only Error and ErrorString.
    static QByteArray status(const QString &command, const QString &requestId, int error,
                             const QString &errorString = QString());

private:
    QByteArray m_bytes;
    QBuffer m_buffer;
    QXmlStreamWriter m_writer;
};

} // namespace Kelda
