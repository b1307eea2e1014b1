#include "completion.h"

#include "clisession.h"
#include "commandsupport.h"
#include "completionmodel.h"

#include <QCommandLineParser>

namespace KeldaCli {

namespace {

const QStringList kShells = {QStringLiteral("bash"), QStringLiteral("zsh"), QStringLiteral("fish")};

// Lists GUIDs only when a server answers at once: one second to connect,
// three in all, and silence on any failure.
const char kGuidPattern[] = "^[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{12}";

QString shellQuoted(const QString &text)
{
    QString quoted = text;
    quoted.replace(QLatin1Char('\''), QLatin1String("'\\''"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

QString fishQuoted(const QString &text)
{
    QString quoted = text;
    quoted.replace(QLatin1Char('\\'), QLatin1String("\\\\")).replace(QLatin1Char('\''), QLatin1String("\\'"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

QStringList namesWith(const std::vector<OptionInfo> &options, ValueKind kind)
{
    QStringList names;
    for (const OptionInfo &option : options) {
        if (option.value == kind)
            names += option.names;
    }
    return names;
}

QStringList allNames(const std::vector<OptionInfo> &options)
{
    QStringList names;
    for (const OptionInfo &option : options)
        names += option.names;
    return names;
}

QStringList valuedNames(const std::vector<OptionInfo> &options)
{
    return namesWith(options, ValueKind::File) + namesWith(options, ValueKind::FileType) +
        namesWith(options, ValueKind::Other);
}

QString argumentWord(const CommandInfo &command)
{
    switch (command.arguments) {
    case ArgumentKind::File:
        return QStringLiteral("files");
    case ArgumentKind::Guid:
        return QStringLiteral("guids");
    case ArgumentKind::Words:
        return QStringLiteral("words:") + command.words.join(QLatin1Char(' '));
    case ArgumentKind::None:
        break;
    }
    return QString();
}

// ---------------------------------------------------------------- bash and zsh

using ListFormat = QString (*)(const QStringList &);

// One branch per command of the `case $command in` both scripts share, which
// sets the command's option lists; the shells differ only in how a list is
// written: `options` for every name, `set` for the names that take a value.
QString commandCases(const CompletionModel &model, ListFormat options, ListFormat set)
{
    QString text;
    for (const CommandInfo &command : model.commands) {
        text +=
            QStringLiteral("        %1)\n"
                           "            options=%2\n"
                           "            file_valued=%3\n"
                           "            type_valued=%4\n"
                           "            other_valued=%5\n"
                           "            arguments=%6\n"
                           "            ;;\n")
                .arg(command.name, options(allNames(command.options)), set(namesWith(command.options, ValueKind::File)),
                     set(namesWith(command.options, ValueKind::FileType)),
                     set(namesWith(command.options, ValueKind::Other)), shellQuoted(argumentWord(command)));
    }
    return text;
}

// ---------------------------------------------------------------- bash

// " -o --output " for matching a word with [[ $list == *" $word "* ]].
QString bashSet(const QStringList &names)
{
    return shellQuoted(QLatin1Char(' ') + names.join(QLatin1Char(' ')) + QLatin1Char(' '));
}

QString bashList(const QStringList &names)
{
    return shellQuoted(names.join(QLatin1Char(' ')));
}

QString bashScript(const CompletionModel &model)
{
    QStringList commandNames;
    for (const CommandInfo &command : model.commands)
        commandNames.append(command.name);
    return QStringLiteral(R"SH(# bash completion for kelda, printed by 'kelda completion bash'.
# Load it with: source <(kelda completion bash)

_kelda_guids()
{
    local limit=()
    command -v timeout >/dev/null 2>&1 && limit=(timeout 3)
    "${limit[@]}" kelda "$@" --connect-timeout 1 -q ls 2>/dev/null |
        grep -oE '%1'
}

_kelda()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local commands=%2
    local global_options=%3
    local global_valued=%4
    local types=%5
    local command='' word i=1
    local globals=()
    while (( i < COMP_CWORD )); do
        word=${COMP_WORDS[i]}
        if [[ $global_valued == *" $word "* ]]; then
            globals+=("$word" "${COMP_WORDS[i+1]}")
            (( i += 2 ))
        elif [[ $word == -* ]]; then
            (( i += 1 ))
        else
            command=$word
            break
        fi
    done
    COMPREPLY=()
    if [[ -z $command ]]; then
        [[ $global_valued == *" $prev "* ]] && return
        if [[ $cur == -* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "$global_options" -- "$cur")
        else
            mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur")
        fi
        return
    fi
    local options file_valued type_valued other_valued arguments
    case $command in
%6        *)
            return
            ;;
    esac
    if [[ $type_valued == *" $prev "* ]]; then
        local type
        while IFS= read -r type; do
            [[ $type == "$cur"* ]] && COMPREPLY+=("$type")
        done <<< "$types"
        return
    fi
    if [[ $file_valued == *" $prev "* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
    fi
    [[ $other_valued == *" $prev "* ]] && return
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        return
    fi
    case $arguments in
        files) mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
        guids) mapfile -t COMPREPLY < <(compgen -W "$(_kelda_guids "${globals[@]}")" -- "$cur") ;;
        words:*) mapfile -t COMPREPLY < <(compgen -W "${arguments#words:}" -- "$cur") ;;
    esac
}

complete -o filenames -F _kelda kelda
)SH")
        .arg(QLatin1String(kGuidPattern), bashList(commandNames), bashList(allNames(model.globalOptions)),
             bashSet(valuedNames(model.globalOptions)),
             QStringLiteral("$") + shellQuoted(model.fileTypes.join(QLatin1String("\\n"))),
             commandCases(model, bashList, bashSet));
}

// ---------------------------------------------------------------- zsh

QString zshArray(const QStringList &items)
{
    QStringList quoted;
    for (const QString &item : items)
        quoted.append(shellQuoted(item));
    return QLatin1Char('(') + quoted.join(QLatin1Char(' ')) + QLatin1Char(')');
}

QString zshScript(const CompletionModel &model)
{
    QStringList described;
    for (const CommandInfo &command : model.commands)
        described.append(command.name + QLatin1Char(':') + command.summary);
    return QStringLiteral(R"SH(#compdef kelda
# zsh completion for kelda, printed by 'kelda completion zsh'.
# Load it with: source <(kelda completion zsh)   (after compinit)

_kelda_guids() {
    local -a limit
    (( $+commands[timeout] )) && limit=(timeout 3)
    $limit kelda "$@" --connect-timeout 1 -q ls 2>/dev/null |
        grep -oE '%1'
}

_kelda() {
    local -a commands global_options global_valued types globals
    commands=%2
    global_options=%3
    global_valued=%4
    types=%5
    local command= word prev=${words[CURRENT-1]}
    local -i i=2
    while (( i < CURRENT )); do
        word=${words[i]}
        if (( ${global_valued[(Ie)$word]} )); then
            globals+=($word ${words[i+1]})
            (( i += 2 ))
        elif [[ $word == -* ]]; then
            (( i += 1 ))
        else
            command=$word
            break
        fi
    done
    if [[ -z $command ]]; then
        (( ${global_valued[(Ie)$prev]} )) && return 1
        if [[ $PREFIX == -* ]]; then
            compadd -a global_options
        else
            _describe -t commands 'kelda command' commands
        fi
        return
    fi
    local -a options file_valued type_valued other_valued
    local arguments
    case $command in
%6        *)
            return 1
            ;;
    esac
    if (( ${type_valued[(Ie)$prev]} )); then
        compadd -a types
    elif (( ${file_valued[(Ie)$prev]} )); then
        _files
    elif (( ${other_valued[(Ie)$prev]} )); then
        return 1
    elif [[ $PREFIX == -* ]]; then
        compadd -a options
    else
        case $arguments in
            files) _files ;;
            guids) compadd -- ${(f)"$(_kelda_guids $globals)"} ;;
            words:*) compadd -- ${(s: :)${arguments#words:}} ;;
        esac
    fi
}

if [[ $funcstack[1] == _kelda ]]; then
    _kelda "$@"
else
    compdef _kelda kelda
fi
)SH")
        .arg(QLatin1String(kGuidPattern), zshArray(described), zshArray(allNames(model.globalOptions)),
             zshArray(valuedNames(model.globalOptions)), zshArray(model.fileTypes),
             commandCases(model, zshArray, zshArray));
}

// ---------------------------------------------------------------- fish

QString fishOption(const QString &condition, const OptionInfo &option, const QString &typeChoices)
{
    QString line = QStringLiteral("complete -c kelda -n %1").arg(fishQuoted(condition));
    for (const QString &name : option.names)
        line += name.startsWith(QLatin1String("--")) ? QStringLiteral(" -l ") + name.mid(2)
                                                     : QStringLiteral(" -s ") + name.mid(1);
    if (option.value == ValueKind::File)
        line += QStringLiteral(" -r -F");
    else if (option.value == ValueKind::FileType)
        line += QStringLiteral(" -x -a ") + typeChoices;
    else if (option.value == ValueKind::Other)
        line += QStringLiteral(" -x");
    if (!option.description.isEmpty())
        line += QStringLiteral(" -d ") + fishQuoted(option.description);
    return line + QLatin1Char('\n');
}

QString fishArguments(const QString &condition, const CommandInfo &command)
{
    const QString prefix = QStringLiteral("complete -c kelda -n %1").arg(fishQuoted(condition));
    switch (command.arguments) {
    case ArgumentKind::File:
        return prefix + QStringLiteral(" -F\n");
    case ArgumentKind::Guid:
        return prefix + QStringLiteral(" -x -a '(__kelda_guids)'\n");
    case ArgumentKind::Words:
        return prefix + QStringLiteral(" -x -a %1\n").arg(fishQuoted(command.words.join(QLatin1Char(' '))));
    case ArgumentKind::None:
        break;
    }
    return QString();
}

QString fishScript(const CompletionModel &model)
{
    QStringList quotedTypes;
    for (const QString &type : model.fileTypes)
        quotedTypes.append(fishQuoted(type));
    const QString typeChoices = QLatin1Char('"') + quotedTypes.join(QLatin1Char(' ')) + QLatin1Char('"');
    QString text = QStringLiteral(R"SH(# fish completion for kelda, printed by 'kelda completion fish'.
# Load it with: kelda completion fish | source

function __kelda_guids
    set -l tokens (commandline -opc)
    set -l globals
    for i in (seq 2 (count $tokens))
        if contains -- $tokens[$i] %1
            set -a globals $tokens[$i] $tokens[(math $i + 1)]
        end
    end
    set -l limit
    command -q timeout; and set limit timeout 3
    $limit kelda $globals --connect-timeout 1 -q ls 2>/dev/null | string match -r '%2'
end

complete -c kelda -f
)SH")
                       .arg(valuedNames(model.globalOptions).join(QLatin1Char(' ')), QLatin1String(kGuidPattern));
    for (const CommandInfo &command : model.commands)
        text += QStringLiteral("complete -c kelda -n __fish_use_subcommand -a %1 -d %2\n")
                    .arg(command.name, fishQuoted(command.summary));
    for (const OptionInfo &option : model.globalOptions)
        text += fishOption(QStringLiteral("__fish_use_subcommand"), option, typeChoices);
    for (const CommandInfo &command : model.commands) {
        const QString condition = QStringLiteral("__fish_seen_subcommand_from ") + command.name;
        for (const OptionInfo &option : command.options)
            text += fishOption(condition, option, typeChoices);
        text += fishArguments(condition, command);
    }
    return text;
}

} // namespace

QString completionScript(const QString &shell)
{
    const CompletionModel model = completionModel();
    if (shell == kShells[0])
        return bashScript(model);
    if (shell == kShells[1])
        return zshScript(model);
    if (shell == kShells[2])
        return fishScript(model);
    return QString();
}

void completionOptions(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("SHELL"),
                                 QStringLiteral("bash, zsh or fish. Load the script with "
                                                "'source <(kelda completion bash)' (zsh alike) or "
                                                "'kelda completion fish | source'."),
                                 QStringLiteral("bash|zsh|fish"));
}

ExitCode runCompletion(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 1, 1))
        return code;
    const QString script = completionScript(parser.positionalArguments().constFirst());
    if (script.isEmpty())
        return session.fail(ExitUsage,
                            QStringLiteral("no completion for '%1'; choose one of %2")
                                .arg(parser.positionalArguments().constFirst(), kShells.join(QLatin1String(", "))));
    session.writeOut(script.toUtf8());
    return ExitOk;
}

} // namespace KeldaCli
