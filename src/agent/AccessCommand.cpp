#include "AgentAccess.h"
#include "AgentCommand.h"
#include "JsonWriter.h"

namespace mossly::agent {

// "mossly-agent access on|off|status": the switch the app's Settings shows.
int runAccess(const QStringList& arguments, AgentIo& io) {
    const QString usage = QStringLiteral("Usage: mossly-agent access on|off|status");
    if (arguments.size() != 1) return printUsage(io, {usage});
    const QString& choice = arguments.front();
    if (choice == u"on" || choice == u"off") {
        if (auto saved = AgentAccess::setEnabled(choice == u"on"); !saved) return printError(io, saved.error());
    } else if (choice != u"status") {
        return printUsage(io, {usage});
    }
    return printJson(io, JsonObjectWriter().add(QStringLiteral("enabled"), AgentAccess::isEnabled()).text());
}

}  // namespace mossly::agent
