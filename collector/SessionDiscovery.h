// Finds the remote display worker and the agent's X servers among the processes of a tick.
//
// Called by the collection thread only. A session is an X server that the agent has started; its
// identity is the display number in that server's command line, whoever owns the server.
#pragma once

#include <string>
#include <vector>

#include "sources/ProcessQuery.h"

namespace mendline {

// True when the worker is among `processes`: the one found last, by pid and start time, or else the
// first process named "FlareWorker" that belongs to the user "qrsflare", who is then remembered
// for as long as the library is loaded.
bool isWorkerKnown(const ProcessInfoSet& processes);

// The display text of each process named "Xorg" whose /proc/<pid>/cmdline holds the agent's marker,
// in the set's order. A process whose command line can't be read is left out without a message.
std::vector<std::string> findSessions(const ProcessInfoSet& processes);

// The display text of an X server's command line, its arguments being ended by NUL bytes: what
// stands between the line's first ':' and the next NUL, or the whole line without a ':'. Empty when
// the line lacks the agent's marker. Not tested for being a number.
std::string displayOfCommandLine(const std::string& commandLine);

}  // namespace mendline
