#pragma once

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

#include <cstdio>

namespace Kelda {

// What the commands beside serving (keldaserver audit, backup, restore) do
// alike: the usage line and help, parsing what follows the command's word,
// and messages that name the command.
class Subcommand
{
public:
    // parse() returns this when the command is to go on.
    static constexpr int Proceed = -1;

    Subcommand(const QString &name, const QString &description);

    QCommandLineParser &parser() { return m_parser; }

    // Parses the program's arguments after the command's word. Returns the
    // exit code to end with (help shown, or bad arguments reported), or
    // Proceed.
    int parse(const QStringList &arguments, const QString &exitCodes);

    // Reports text on stderr, prefixed with the command, and returns code.
    int fail(int code, const QString &text) const { return report(m_name, code, text); }
    static int report(const QString &name, int code, const QString &text);

    static void printLine(FILE *stream, const QString &text);

private:
    const QString m_name;
    QCommandLineParser m_parser;
    const QCommandLineOption m_help;
};

} // namespace Kelda
