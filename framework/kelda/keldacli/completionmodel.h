#pragma once

#include <QString>
#include <QStringList>

#include <vector>

// The command line of `kelda` as the completion scripts see it, read from
// the same option definitions that the parsers use, so that the scripts
// cannot fall behind the program.
namespace KeldaCli {

enum class ValueKind { None, File, FileType, Other };

struct OptionInfo
{
    // "-t", "--type"
    QStringList names;
    ValueKind value = ValueKind::None;
    // Its help, joined into one line.
    QString description;
};

enum class ArgumentKind { None, File, Guid, Words };

struct CommandInfo
{
    QString name;
    QString summary;
    ArgumentKind arguments = ArgumentKind::None;
    // The choices of ArgumentKind::Words.
    QStringList words;
    std::vector<OptionInfo> options;
};

struct CompletionModel
{
    std::vector<OptionInfo> globalOptions;
    std::vector<CommandInfo> commands;
    // The display texts --type accepts.
    QStringList fileTypes;
};

CompletionModel completionModel();

// The options listed in a QCommandLineParser help text.
std::vector<OptionInfo> optionsFromHelp(const QString &helpText);

} // namespace KeldaCli
