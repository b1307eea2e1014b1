#pragma once

#include <QByteArray>
#include <QLatin1String>
#include <QString>
#include <QXmlStreamWriter>

namespace Kelda {

// Base of every request the client sends: one SOAP 1.2 envelope whose header
// carries the protocol version and the request id, and whose body holds one
// command element in the message namespace.
//
// Messages are plain values: a CommandRequest (commandrequest.h) is built on
// the stack, and the sender sends ToXml() and keeps GetRequestId() as the
// identifier of the request.
class KeldaClientSOAPMessage
{
public:
    virtual ~KeldaClientSOAPMessage();

    // The complete request document: declaration, envelope, header, body and
    // one closing line feed, with no whitespace between the tags. The base
    // version writes the declaration and the header only.
    virtual QByteArray ToXml() const;
    // Empties every field. The request id is emptied too, not renewed.
    virtual void Clear();

    QString GetGuid() const { return m_sGuid; }
    void SetGuid(const QString &guid) { m_sGuid = guid; }
    QString GetRequestId() const { return m_sRequestId; }
    // Replaces the id drawn at construction; replies are matched by it.
    void SetRequestId(const QString &requestId) { m_sRequestId = requestId; }
    // Carried along with the message, never written to the wire.
    QString GetAnnotation() const { return m_sAnnotation; }
    void SetAnnotation(const QString &annotation) { m_sAnnotation = annotation; }
    QString GetApplication() const { return m_sApplication; }
    void SetApplication(const QString &application) { m_sApplication = application; }

protected:
    // Draws a fresh request id.
    KeldaClientSOAPMessage();
    KeldaClientSOAPMessage(const KeldaClientSOAPMessage &) = default;
    KeldaClientSOAPMessage &operator=(const KeldaClientSOAPMessage &) = default;

    // Declaration, "s:Envelope" with its namespace, and the whole "s:Header".
    void WriteHeader(QXmlStreamWriter &writer) const;

    // Writes the header, opens "s:Body" and "m:<command>" (which declares the
    // message namespace), lets writeChildren add the command's children and
    // closes the document. An element with nothing written inside becomes an
    // empty-element tag.
    template <typename WriteChildren> QByteArray WriteCommand(QLatin1String command, WriteChildren writeChildren) const
    {
        QByteArray bytes;
        QXmlStreamWriter writer(&bytes);
        WriteHeader(writer);
        WriteStartCommand(writer, command);
        writeChildren(writer);
        writer.writeEndDocument();
        return bytes;
    }

    // "m:<name>" holding the value; an empty value still gives start and end tag.
    static void WriteText(QXmlStreamWriter &writer, QLatin1String name, const QString &value);
    static void WriteStartElement(QXmlStreamWriter &writer, QLatin1String name);

private:
    void WriteStartCommand(QXmlStreamWriter &writer, QLatin1String command) const;

    QString m_sGuid;
    QString m_sRequestId;
    QString m_sAnnotation;
    QString m_sApplication;
};

} // namespace Kelda
