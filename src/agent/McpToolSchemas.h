#pragma once

#include <QJsonArray>
#include <QStringList>

namespace mossly::agent {

// The tools the MCP server offers, with their input and output JSON Schemas
// and descriptions that teach the read → update-with-revision workflow.
QJsonArray mcpToolDefinitions();
QStringList mcpToolNames();
// What the server tells the client about using it, at initialisation.
QString mcpInstructions();

}  // namespace mossly::agent
