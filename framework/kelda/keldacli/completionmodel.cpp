#include "completionmodel.h"

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
OptionInfo optionFromLine(const QString &line)
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
    OptionInfo option;
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

CommandInfo commandInfo(const Command &command)
{
    QCommandLineParser parser;
    parser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")});
    addVerbosityOptions(parser);
    command.addOptions(parser);
    CommandInfo info;
    info.name = QLatin1String(command.name);
    info.summary = QLatin1String(command.summary);
    info.arguments = argumentKind(QLatin1String(command.synopsis), info.words);
    info.options = optionsFromHelp(parser.helpText());
    return info;
}

} // namespace

std::vector<OptionInfo> optionsFromHelp(const QString &helpText)
{
    std::vector<OptionInfo> options;
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

CompletionModel completionModel()
{
    CompletionModel model;
    QCommandLineParser global;
    addGlobalOptions(global, defaultConnectionSettings());
    model.globalOptions = optionsFromHelp(global.helpText());
    for (const Command &command : commands())
        model.commands.push_back(commandInfo(command));
    for (int type = 0; type <= Kelda::FT_Last; ++type)
        model.fileTypes.append(Kelda::FileTypeManager::GetText(Kelda::FileType(type)));
    return model;
}

} // namespace KeldaCli
