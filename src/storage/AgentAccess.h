#pragma once

#include <QString>

#include "Error.h"

namespace mossly {

// Whether AI agents may use the notes library: "agent-access.json" in the
// app's data folder ({"schemaVersion":1,"enabled":true}). Off until the user
// turns it on; mossly-agent and its MCP server refuse every operation while
// it is off. A record that cannot be read counts as off.
namespace AgentAccess {
// "$XDG_DATA_HOME/com.bellam.notes/agent-access.json"
QString recordPath();
bool isEnabled();
Result<void> setEnabled(bool enabled);
// Fails with `agentAccessOff` while access is off.
Result<void> require();
}  // namespace AgentAccess

}  // namespace mossly
