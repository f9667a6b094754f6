// Subcommands of lumaro-broadcast. Each lives in its own file and registers itself:
//
//     static const Command kPick{"pick", "ask for a broadcast set-up", "pick [options]", runPick};
//
// A Command object at namespace scope adds itself to the list that main() dispatches on and
// --help prints, so adding a subcommand is adding its file.
#pragma once

#include <QStringList>
#include <QTextStream>
#include <functional>
#include <vector>

struct Command {
    // `run` receives the arguments after the subcommand's name and answers the exit status.
    using Run = std::function<int(const QStringList& args, QTextStream& out, QTextStream& err)>;

    // Whether the subcommand may open windows; it then runs in a widgets application when a
    // display is available.
    enum class Windows { None, WhenDisplayed };

    Command(const char* name, const char* summary, const char* usage, Run run,
            Windows windows = Windows::None);

    const char* name;
    const char* summary;
    const char* usage;  // the subcommand's own --help text
    Run run;
    Windows windows;

    // Every registered subcommand, by name.
    static std::vector<const Command*> all();
    static const Command* named(const char* name);
};

// Exit statuses shared by the subcommands.
constexpr int kExitOK = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
