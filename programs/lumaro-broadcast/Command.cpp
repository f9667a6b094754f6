#include "programs/lumaro-broadcast/Command.h"

#include <algorithm>
#include <cstring>

namespace {
std::vector<const Command*>& registry() {
    static std::vector<const Command*> commands;
    return commands;
}
}  // namespace

Command::Command(const char* name, const char* summary, const char* usage, Run run,
                 Windows windows)
    : name(name), summary(summary), usage(usage), run(std::move(run)), windows(windows) {
    registry().push_back(this);
}

std::vector<const Command*> Command::all() {
    std::vector<const Command*> commands = registry();
    std::sort(commands.begin(), commands.end(),
              [](const Command* a, const Command* b) { return std::strcmp(a->name, b->name) < 0; });
    return commands;
}

const Command* Command::named(const char* name) {
    for (const Command* command : registry()) {
        if (name != nullptr && std::strcmp(command->name, name) == 0) {
            return command;
        }
    }
    return nullptr;
}
