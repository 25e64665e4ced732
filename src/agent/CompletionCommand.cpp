// Shell completion for mossly-agent, written from the subcommand table so a new
// subcommand completes without anyone editing a script.
#include <QRegularExpression>

#include "AgentCommand.h"

namespace mossly::agent {

namespace {

enum class ValueKind { directory, file, choices, free };

struct OptionValue {
    QString option;
    ValueKind kind;
    QStringList choices;
};

// What follows each option in the synopses: "DIR" a folder, "FILE"/"F" a file, "a|b" one of those words.
QList<OptionValue> optionValues() {
    static const QRegularExpression optionWithValue(QStringLiteral("(--[a-z][a-z-]*)[ =]([^\\s\\[\\]]+)"));
    static const QRegularExpression wordChoices(QStringLiteral("^[a-z][a-z-]*(\\|[a-z][a-z-]*)+$"));
    QList<OptionValue> values;
    QString synopses = QStringLiteral("--notes-dir DIR --catalog FILE");
    for (const AgentSubcommand& command : agentSubcommands()) synopses += u' ' + command.synopsis;
    for (const auto& match : optionWithValue.globalMatch(synopses)) {
        const QString option = match.captured(1);
        if (std::any_of(values.begin(), values.end(),
                        [&](const OptionValue& v) { return v.option == option; })) {
            continue;
        }
        const QString value = match.captured(2);
        if (value == u"DIR") {
            values.append({option, ValueKind::directory, {}});
        } else if (value == u"FILE" || value.startsWith(u"F|") || value == u"F") {
            values.append({option, ValueKind::file, {}});
        } else if (wordChoices.match(value).hasMatch()) {
            values.append({option, ValueKind::choices, value.split(u'|')});
        } else {
            values.append({option, ValueKind::free, {}});
        }
    }
    return values;
}

QStringList commandNames() {
    QStringList names;
    for (const AgentSubcommand& command : agentSubcommands()) names.append(command.name);
    return names;
}

QString bashScript() {
    QString script =
        QStringLiteral(
            "# bash completion for mossly-agent (written by \"mossly-agent completion bash\")\n"
            "_mossly_agent() {\n"
            "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} options words\n"
            "    if (( COMP_CWORD == 1 )); then\n"
            "        COMPREPLY=($(compgen -W \"%1 help --help\" -- \"$cur\"))\n"
            "        return\n"
            "    fi\n"
            "    case $prev in\n")
            .arg(commandNames().join(u' '));
    for (const OptionValue& value : optionValues()) {
        script += QStringLiteral("        ") + value.option + QStringLiteral(") ");
        switch (value.kind) {
            case ValueKind::directory:
                script +=
                    QStringLiteral("compopt -o filenames 2>/dev/null; COMPREPLY=($(compgen -d -- \"$cur\"))");
                break;
            case ValueKind::file:
                script +=
                    QStringLiteral("compopt -o filenames 2>/dev/null; COMPREPLY=($(compgen -f -- \"$cur\"))");
                break;
            case ValueKind::choices:
                script += QStringLiteral("COMPREPLY=($(compgen -W \"%1\" -- \"$cur\"))")
                              .arg(value.choices.join(u' '));
                break;
            case ValueKind::free:
                script += QStringLiteral("COMPREPLY=()");
                break;
        }
        script += QStringLiteral("; return ;;\n");
    }
    script += QStringLiteral("    esac\n    case ${COMP_WORDS[1]} in\n");
    for (const AgentSubcommand& command : agentSubcommands()) {
        script +=
            QStringLiteral("        %1) options=\"%2 --help\"; words=\"%3\" ;;\n")
                .arg(command.name, subcommandOptions(command).join(u' '), command.firstArguments.join(u' '));
    }
    script += QStringLiteral(
                  "        help) options=\"\"; words=\"%1\" ;;\n"
                  "        *) return ;;\n"
                  "    esac\n"
                  "    if [[ $cur == -* ]]; then\n"
                  "        COMPREPLY=($(compgen -W \"$options\" -- \"$cur\"))\n"
                  "    elif (( COMP_CWORD == 2 )) && [[ -n $words ]]; then\n"
                  "        COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
                  "    fi\n"
                  "}\n"
                  "complete -F _mossly_agent mossly-agent\n")
                  .arg(commandNames().join(u' '));
    return script;
}

// Text inside single quotes, with the escapes zsh's completion descriptions need.
QString zshQuoted(QString text) {
    text.replace(u'\'', QStringLiteral("'\\''"));
    text.replace(u':', QStringLiteral("\\:"));
    text.replace(u'[', QStringLiteral("\\["));
    text.replace(u']', QStringLiteral("\\]"));
    return text;
}

QString zshScript() {
    QString script = QStringLiteral(
        "#compdef mossly-agent\n"
        "# zsh completion for mossly-agent (written by \"mossly-agent completion zsh\")\n"
        "_mossly_agent() {\n"
        "  local -a commands\n"
        "  commands=(\n");
    for (const AgentSubcommand& command : agentSubcommands()) {
        script += QStringLiteral("    '") + command.name + u':' + zshQuoted(command.summary) +
                  QStringLiteral("'\n");
    }
    script += QStringLiteral(
        "  )\n"
        "  if (( CURRENT == 2 )); then\n"
        "    _describe -t commands 'mossly-agent command' commands\n"
        "    return\n"
        "  fi\n"
        "  local command=$words[2]\n"
        "  shift words\n"
        "  (( CURRENT-- ))\n"
        "  case $command in\n");
    const QList<OptionValue> values = optionValues();
    for (const AgentSubcommand& command : agentSubcommands()) {
        script += QStringLiteral("    (") + command.name + QStringLiteral(") _arguments");
        if (!command.firstArguments.isEmpty()) {
            script +=
                QStringLiteral(" '1:argument:(") + command.firstArguments.join(u' ') + QStringLiteral(")'");
        }
        for (const QString& option : subcommandOptions(command)) {
            const auto value = std::find_if(values.begin(), values.end(),
                                            [&](const OptionValue& v) { return v.option == option; });
            QString action;
            if (value != values.end()) {
                switch (value->kind) {
                    case ValueKind::directory:
                        action = QStringLiteral(":directory:_files -/");
                        break;
                    case ValueKind::file:
                        action = QStringLiteral(":file:_files");
                        break;
                    case ValueKind::choices:
                        action = QStringLiteral(":value:(") + value->choices.join(u' ') + u')';
                        break;
                    case ValueKind::free:
                        action = QStringLiteral(":value:");
                        break;
                }
            }
            script += QStringLiteral(" '*") + option + action + u'\'';
        }
        script += QStringLiteral(" '--help[show usage]' ;;\n");
    }
    script += QStringLiteral(
        "    (help) _describe -t commands 'mossly-agent command' commands ;;\n"
        "  esac\n"
        "}\n"
        "_mossly_agent \"$@\"\n");
    return script;
}

}  // namespace

int runCompletion(const QStringList& arguments, AgentIo& io) {
    if (arguments.size() != 1)
        return printUsage(io, {QStringLiteral("Usage: mossly-agent completion bash|zsh")});
    if (arguments.front() == u"bash") {
        io.out << bashScript();
    } else if (arguments.front() == u"zsh") {
        io.out << zshScript();
    } else {
        return printUsage(
            io, {QStringLiteral("Unknown shell: ") + arguments.front() + QStringLiteral(" (bash or zsh)")});
    }
    io.out.flush();
    return success;
}

}  // namespace mossly::agent
