#include <QFile>
#include <QFileInfo>
#include <cmath>

#include "AgentCommand.h"
#include "SyncEngineIgnores.h"
#include "JsonWriter.h"
#include "MarkdownDocumentCodec.h"
#include "NoteSearchCatalog.h"
#include "NoteTitle.h"

namespace mossly::agent {

namespace {
const QStringList commonValueOptions{QStringLiteral("notes-dir"), QStringLiteral("catalog")};
}

std::expected<CommandOptions, UsageError> CommandOptions::parse(const QStringList& arguments,
                                                                const QStringList& valueOptions,
                                                                const QStringList& repeatable) {
    CommandOptions options;
    bool onlyPositional = false;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        if (onlyPositional || !argument.startsWith(QStringLiteral("--"))) {
            options.positional_.append(argument);
            continue;
        }
        if (argument == u"--") {
            onlyPositional = true;
            continue;
        }
        QString name = argument.mid(2);
        std::optional<QString> inlineValue;
        if (const qsizetype equals = name.indexOf(u'='); equals >= 0) {
            inlineValue = name.mid(equals + 1);
            name.truncate(equals);
        }
        if (!valueOptions.contains(name) && !commonValueOptions.contains(name)) {
            return std::unexpected(UsageError{QStringLiteral("Unknown option: --") + name});
        }
        if (!inlineValue) {
            if (i + 1 >= arguments.size()) {
                return std::unexpected(UsageError{QStringLiteral("Missing value for --") + name});
            }
            inlineValue = arguments[++i];
        }
        const bool seen = options.value(name).has_value();
        if (seen && !repeatable.contains(name)) {
            return std::unexpected(UsageError{QStringLiteral("--") + name + QStringLiteral(" given more than once")});
        }
        options.values_.append({name, *inlineValue});
    }
    return options;
}

std::optional<QString> CommandOptions::value(const QString& name) const {
    for (const auto& [key, value] : values_) {
        if (key == name) return value;
    }
    return std::nullopt;
}

QStringList CommandOptions::values(const QString& name) const {
    QStringList found;
    for (const auto& [key, value] : values_) {
        if (key == name) found.append(value);
    }
    return found;
}

Result<NoteRepository> repositoryFor(const CommandOptions& options, AgentIo& io) {
    QString directory;
    if (auto given = options.value(QStringLiteral("notes-dir"))) {
        // Identifiers are checked against the folder's absolute, canonical path: "." and "../x" must work too.
        const QFileInfo folder(*given);
        const QString canonical = folder.canonicalFilePath();
        directory = canonical.isEmpty() ? folder.absoluteFilePath() : canonical;
    } else {
        auto resolution = resolveConfiguredNotesDirectory();
        if (!resolution) return fail(resolution.error());
        if (resolution->notice) io.err << *resolution->notice << '\n';
        directory = resolution->directory;
    }
    // The lock file this command may create must not travel to other machines.
    (void)ensureSyncthingIgnores(directory);
    return NoteRepository(directory);
}

QString catalogPathFor(const CommandOptions& options) {
    return options.value(QStringLiteral("catalog")).value_or(NoteSearchCatalog::defaultUrl());
}

std::expected<std::optional<QString>, UsageError> bodyFrom(const CommandOptions& options, AgentIo& io) {
    const auto body = options.value(QStringLiteral("body"));
    const auto file = options.value(QStringLiteral("body-file"));
    if (body && file) return std::unexpected(UsageError{QStringLiteral("Use either --body or --body-file, not both")});
    if (body) return std::optional<QString>(*body);
    if (!file) return std::optional<QString>();
    if (*file == u"-") return std::optional<QString>(QString::fromUtf8(io.in.readAll()));
    QFile input(*file);
    if (!input.open(QIODevice::ReadOnly)) {
        return std::unexpected(UsageError{QStringLiteral("Cannot read the body file: ") + *file});
    }
    return std::optional<QString>(QString::fromUtf8(input.readAll()));
}

std::expected<NoteFrontMatterFields, UsageError> fieldsFrom(const CommandOptions& options) {
    NoteFrontMatterFields fields;
    for (const QString& field : options.values(QStringLiteral("field"))) {
        const qsizetype equals = field.indexOf(u'=');
        if (equals <= 0) return std::unexpected(UsageError{QStringLiteral("Expected --field KEY=VALUE, got: ") + field});
        fields.insert_or_assign(field.left(equals), MarkdownDocumentCodec::value(field.mid(equals + 1).trimmed()));
    }
    return fields;
}

std::expected<NoteWrite, UsageError> noteWriteFrom(const CommandOptions& options, AgentIo& io) {
    const auto name = options.value(QStringLiteral("agent"));
    if (!name || name->isEmpty()) {
        return std::unexpected(UsageError{QStringLiteral("Writes need --agent NAME (the editor recorded in the note)")});
    }
    auto fields = fieldsFrom(options);
    if (!fields) return std::unexpected(fields.error());
    auto body = bodyFrom(options, io);
    if (!body) return std::unexpected(body.error());
    return NoteWrite{NoteEditor::agent(*name), std::move(*fields), std::move(*body)};
}

QString noteJson(const StoredNote& note) {
    const NoteDocument& document = note.document;
    JsonObjectWriter frontMatter;
    QStringList shown;
    for (const auto& [key, value] : document.frontMatterFields) {
        const QString written = MarkdownDocumentCodec::writtenValue(value);
        // JSON has no NaN or infinity.
        const bool finite = !value.holds<double>() || std::isfinite(value.get<double>());
        frontMatter.addRaw(key, finite ? written : QStringLiteral("null"));
        shown.append(key);
    }
    // Other lines ("status: draft" that an agent set) are shown as text, so an agent sees what it wrote.
    for (const QString& line : document.unrelatedMetadata()) {
        const qsizetype colon = line.indexOf(u':');
        if (colon <= 0) continue;
        const QString key = line.left(colon).trimmed();
        if (shown.contains(key)) continue;
        shown.append(key);
        QString value = line.mid(colon + 1).trimmed();
        if (value.size() >= 2 && value.startsWith(u'"') && value.endsWith(u'"')) {
            value = std::get<QString>(MarkdownDocumentCodec::value(value).storage());
        }
        frontMatter.add(key, value);
    }
    std::optional<QString> lastEditedBy;
    if (document.lastEditedBy) lastEditedBy = document.lastEditedBy->storedValue();
    return JsonObjectWriter()
        .add(QStringLiteral("identifier"), note.identifier)
        .add(QStringLiteral("title"), noteTitle(document.visibleText(), note.identifier))
        .add(QStringLiteral("contentType"), rawValue(note.contentType))
        .add(QStringLiteral("revision"), document.revision())
        .add(QStringLiteral("createdBy"), document.createdBy.storedValue())
        .add(QStringLiteral("lastEditedBy"), lastEditedBy)
        .add(QStringLiteral("modifiedAt"), isoTimestamp(note.modifiedAt))
        .add(QStringLiteral("body"), document.body)
        .addRaw(QStringLiteral("frontMatter"), frontMatter.text())
        .text();
}

int printJson(AgentIo& io, const QString& json) {
    io.out << json << '\n';
    io.out.flush();
    return success;
}

int printError(AgentIo& io, const Error& error) {
    io.err << error.description() << '\n';
    io.err.flush();
    return failure;
}

int printUsage(AgentIo& io, const UsageError& error) {
    io.err << error.message << '\n' << QStringLiteral("Run \"mossly-agent help\" for usage.") << '\n';
    io.err.flush();
    return usageError;
}

}  // namespace mossly::agent
