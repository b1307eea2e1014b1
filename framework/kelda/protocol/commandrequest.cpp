#include "commandrequest.h"

#include "keldaxml.h"

namespace Kelda {

namespace {

constexpr QLatin1String TimeFormat = Latin1Literal("yyyy-MM-dd hh:mm:ss.zzz");

QString TimeText(const QDateTime &value)
{
    return value.isValid() ? value.toUTC().toString(TimeFormat) : QString();
}

// What a field nobody set is written as.
QStringList UnsetValues(FieldShape shape)
{
    switch (shape) {
    case FieldShape::Number:
    case FieldShape::Unsigned:
        return {QStringLiteral("0")};
    case FieldShape::Flag:
        return {Flag::False};
    case FieldShape::TimeRange:
        return {QString(), QString()};
    case FieldShape::Repeated:
    case FieldShape::List:
        return {};
    case FieldShape::Text:
    case FieldShape::Time:
        break;
    }
    return {QString()};
}

bool TakesGuid(const RequestField &field)
{
    return field.source == FieldSource::Guid;
}

bool TakesApplication(const RequestField &field)
{
    return field.source == FieldSource::Application || field.source == FieldSource::ClientApplication;
}

// %1 to %9 of format filled in one pass, as QString::arg() with several
// arguments does it: a value that holds "%2" stays as it is.
QString Substitute(QLatin1String format, const QStringList &values)
{
    QString text;
    text.reserve(format.size());
    for (int i = 0; i < format.size(); ++i) {
        const int number = i + 1 < format.size() ? format.at(i + 1).toLatin1() - '0' : -1;
        if (format.at(i) == QLatin1Char('%') && number >= 1 && number <= values.size()) {
            text += values.at(number - 1);
            ++i;
        } else {
            text += format.at(i);
        }
    }
    return text;
}

} // namespace

CommandRequest::CommandRequest(ReplyKind kind)
    : m_kind(kind)
{ }

QByteArray CommandRequest::ToXml() const
{
    const CommandDescriptor &command = Command();
    return WriteCommand(command.request, [&](QXmlStreamWriter &writer) {
        for (int i = 0; i < command.fields.Size(); ++i)
            WriteField(writer, command.fields.At(i), ValuesOf(i));
    });
}

void CommandRequest::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_values.fill(QStringList());
}

CommandRequest &CommandRequest::SetText(QLatin1String field, const QString &text)
{
    SetValues(field, {text});
    return *this;
}

CommandRequest &CommandRequest::SetNumber(QLatin1String field, qint64 value)
{
    return SetText(field, QString::number(value));
}

CommandRequest &CommandRequest::SetUnsigned(QLatin1String field, quint64 value)
{
    return SetText(field, QString::number(value));
}

CommandRequest &CommandRequest::SetFlag(QLatin1String field, bool value)
{
    return SetText(field, value ? Flag::True : Flag::False);
}

CommandRequest &CommandRequest::SetTime(QLatin1String field, const QDateTime &value)
{
    return SetText(field, TimeText(value));
}

CommandRequest &CommandRequest::SetTexts(QLatin1String field, const QStringList &texts)
{
    SetValues(field, texts);
    return *this;
}

CommandRequest &CommandRequest::SetTimeRange(QLatin1String field, const QDateTime &min, const QDateTime &max)
{
    SetValues(field, {TimeText(min), TimeText(max)});
    return *this;
}

QString CommandRequest::FieldText(QLatin1String field) const
{
    const int index = IndexOfField(Command(), field);
    if (index < 0)
        return QString();
    if (Command().fields.At(index).source == FieldSource::Fixed)
        return m_values[index].value(0);
    return ValuesOf(index).value(0);
}

QString CommandRequest::SendTrace() const
{
    const CommandDescriptor &command = Command();
    QStringList values;
    for (QLatin1String field : command.traceFields)
        values.append(FieldText(field));
    return Substitute(command.sendTrace, values);
}

void CommandRequest::SetValues(QLatin1String field, QStringList texts)
{
    const int index = IndexOfField(Command(), field);
    if (index < 0)
        return;
    const RequestField &described = Command().fields.At(index);
    if (TakesGuid(described))
        SetGuid(texts.value(0));
    else if (TakesApplication(described))
        SetApplication(texts.value(0));
    else
        m_values[index] = std::move(texts);
}

QStringList CommandRequest::ValuesOf(int index) const
{
    const RequestField &field = Command().fields.At(index);
    if (TakesGuid(field))
        return {GetGuid()};
    if (TakesApplication(field))
        return {GetApplication()};
    if (field.source == FieldSource::Fixed)
        return {field.fixed};
    return m_values[index].isEmpty() ? UnsetValues(field.shape) : m_values[index];
}

void CommandRequest::WriteField(QXmlStreamWriter &writer, const RequestField &field, const QStringList &values)
{
    switch (field.shape) {
    case FieldShape::Repeated:
        for (const QString &value : values)
            WriteText(writer, field.name, value);
        break;
    case FieldShape::List:
        WriteStartElement(writer, field.name);
        for (const QString &value : values)
            WriteText(writer, field.item, value);
        writer.writeEndElement();
        break;
    case FieldShape::TimeRange:
        WriteStartElement(writer, field.name);
        WriteText(writer, Tag::Min, values.value(0));
        WriteText(writer, Tag::Max, values.value(1));
        writer.writeEndElement();
        break;
    case FieldShape::Text:
    case FieldShape::Number:
    case FieldShape::Unsigned:
    case FieldShape::Flag:
    case FieldShape::Time:
        WriteText(writer, field.name, values.value(0));
        break;
    }
}

} // namespace Kelda
