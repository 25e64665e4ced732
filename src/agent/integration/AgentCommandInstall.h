#pragma once

#include <QString>

#include "Error.h"

namespace mossly {

// Puts mossly-agent on the user's command path: "~/.local/bin/mossly-agent",
// a symbolic link to the installed program.
struct AgentCommandInstall {
    QString linkPath;     // where the link is (or goes)
    bool folderOnPath;    // whether agents started from a shell will find it by name
};

// The program itself: beside the running program, in a build tree's agent
// folder, or on PATH; empty when there is none.
QString locateAgentCommand(const QString& besideProgram);
Result<AgentCommandInstall> installAgentCommand(const QString& program, const QString& home, const QString& path);
// The installed link when it points at a program, else `program` itself.
QString preferredAgentCommand(const QString& program, const QString& home);

}  // namespace mossly
