#include "completionspec.h"

#include "clisession.h"
#include "commands.h"
#include "globaloptions.h"

#include "filetype.h"

#include <QCommandLineParser>

namespace KeldaCli {

namespace {

// Option names and their description are two or more blanks apart.
const QString kColumnGap = QStringLiteral("  ");
// Deeper than an option or argument line.
const QString kContinuation = QStringLiteral("    ");
const QStringList kFilePlaceholders = {QStringLiteral("DEST"), QStringLiteral("DIR"), QStringLiteral("FILE")};
const QString kTypePlaceholder = QStringLiteral("TYPE");

ValueKind valueKind(const QString &placeholder)
{
    if (placeholder.isEmpty())
        return ValueKind::None;
    if (kFilePlaceholders.contains(placeholder))
        return ValueKind::File;
    return placeholder == kTypePlaceholder ? ValueKind::FileType : ValueKind::Other;
}

// "-t, --type <TYPE>    File type: ..." from the Options block.
OptionSpec optionFromLine(const QString &line)
{
    const QString body = line.mid(2);
    const int gap = body.indexOf(kColumnGap);
    QString names = gap < 0 ? body : body.left(gap);
    QString placeholder;
    const int value = names.indexOf(QLatin1String(" <"));
    if (value >= 0) {
        placeholder = names.mid(value + 2).chopped(1);
        names.truncate(value);
    }
    OptionSpec option;
    option.names = names.split(QLatin1String(", "));
    option.value = valueKind(placeholder);
    option.description = gap < 0 ? QString() : body.mid(gap).trimmed();
    return option;
}

ArgumentKind argumentKind(const QString &synopsis, QStringList &words)
{
    if (synopsis.contains(QLatin1String("GUID")))
        return ArgumentKind::Guid;
    if (synopsis.contains(QLatin1String("FILE")) || synopsis.contains(QLatin1String("DIR")))
        return ArgumentKind::File;
    if (synopsis.contains(QLatin1Char('|'))) {
        words = synopsis.split(QLatin1Char('|'));
        return ArgumentKind::Words;
    }
    return ArgumentKind::None;
}

CommandSpec commandSpec(const Command &command)
{
    QCommandLineParser parser;
    parser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")});
    addVerbosityOptions(parser);
    command.addOptions(parser);
    CommandSpec spec;
    spec.name = QLatin1String(command.name);
    spec.summary = QLatin1String(command.summary);
    spec.arguments = argumentKind(QLatin1String(command.synopsis), spec.words);
    spec.options = optionsFromHelp(parser.helpText());
    return spec;
}

} // namespace

std::vector<OptionSpec> optionsFromHelp(const QString &helpText)
{
    std::vector<OptionSpec> options;
    bool inOption = false;
    for (const QString &line : helpText.split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1String("  -"))) {
            options.push_back(optionFromLine(line));
            inOption = true;
        } else if (inOption && line.startsWith(kContinuation)) {
            // A description wrapped onto the lines below its option.
            options.back().description += QLatin1Char(' ') + line.trimmed();
        } else {
            inOption = false;
        }
    }
    return options;
}

CompletionSpec completionSpec()
{
    CompletionSpec spec;
    QCommandLineParser global;
    addGlobalOptions(global, defaultConnectionSettings());
    spec.globalOptions = optionsFromHelp(global.helpText());
    for (const Command &command : commands())
        spec.commands.push_back(commandSpec(command));
    for (int type = 0; type <= Kelda::FT_Last; ++type)
        spec.fileTypes.append(Kelda::FileTypeManager::GetText(Kelda::FileType(type)));
    return spec;
}

} // namespace KeldaCli
