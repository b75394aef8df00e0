// hostrix-agent takes no arguments: it reads $HOSTRIX_ROOT/etc/hostrix/agent.conf
// and runs until SIGTERM.
#include <cstdio>

#include "agent.h"
#include "agent_paths.h"
#include "log.h"

int main(int argc, char **) {
    if (argc > 1) {
        std::fprintf(stderr, "usage: hostrix-agent (no arguments; settings in %s)\n",
                     agentPath(kAgentConfigBase).c_str());
        return 2;
    }
    std::vector<std::string> problems;
    std::string path = agentPath(kAgentConfigBase);
    AgentConfig config = readAgentConfig(path, problems);
    for (const std::string &problem : problems) agentLog(path + ": " + problem + "; skipped");
    Agent agent(std::move(config));
    return agent.run();
}
