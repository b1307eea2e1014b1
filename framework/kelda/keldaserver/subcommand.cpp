#include "subcommand.h"

#include "serveroptions.h"

namespace Kelda {

Subcommand::Subcommand(const QString &name, const QString &description)
    : m_name(name)
    , m_help(QStringList{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help and exit."))
{
    m_parser.setApplicationDescription(description);
    m_parser.addOption(m_help);
}

int Subcommand::parse(const QStringList &arguments, const QString &exitCodes)
{
    QStringList own = arguments;
    own.removeAt(1);
    if (!m_parser.parse(own))
        return fail(ServerOptions::ExitUsage,
                    m_parser.errorText() + QStringLiteral("\nTry 'keldaserver %1 --help'.").arg(m_name));
    if (m_parser.isSet(m_help)) {
        // Qt's usage line names the program only.
        printLine(stdout,
                  QStringLiteral("Usage: keldaserver %1 [options]\n").arg(m_name) +
                      m_parser.helpText().section(QLatin1Char('\n'), 1) + exitCodes);
        return ServerOptions::ExitOk;
    }
    if (!m_parser.positionalArguments().isEmpty())
        return fail(ServerOptions::ExitUsage,
                    QStringLiteral("Unexpected argument: %1").arg(m_parser.positionalArguments().first()));
    return Proceed;
}

int Subcommand::report(const QString &name, int code, const QString &text)
{
    printLine(stderr, QStringLiteral("keldaserver %1: %2").arg(name, text));
    return code;
}

void Subcommand::printLine(FILE *stream, const QString &text)
{
    const QByteArray bytes = text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    if (!text.endsWith(QLatin1Char('\n')))
        std::fputc('\n', stream);
}

} // namespace Kelda
