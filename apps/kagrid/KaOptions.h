#pragma once

#include <map>
#include <string>
#include <vector>

// kagrid's options, declared once: the usage texts and the parsers of
// gridding and of every subcommand come from one table.

// The commands, as a mask of those an option belongs to.
enum KaCommand : unsigned {
    kKaGrid = 1,
    kKaCrossValidate = 2,
    kKaVariogram = 4,
    kKaTune = 8,
    kKaPredict = 16,
    kKaAllCommands = 31,
};

// Thrown for a usage error (exit status 2, with the command's usage text).
struct KaUsageError {
    std::string message;
};

// The options a command was given, by name as declared ("--set", "-q" is
// "--quiet"); a flag holds one empty value per use.
struct KaParsedOptions {
    std::vector<std::string> positional;
    std::map<std::string, std::vector<std::string>> values;

    bool Has(const std::string& name) const { return values.count(name) != 0; }
    // The last value given, or "" when none.
    std::string Value(const std::string& name) const
    {
        auto it = values.find(name);
        return it == values.end() || it->second.empty() ? std::string() : it->second.back();
    }
    // Every value given, in order.
    std::vector<std::string> Values(const std::string& name) const
    {
        auto it = values.find(name);
        return it == values.end() ? std::vector<std::string>() : it->second;
    }
};

// Parses argv[1..argc) for `command`. "-h"/"--help" prints `usage` on stdout
// and exits 0; "--version" (gridding) stops the parse and is returned at once.
// Unknown options and missing values throw KaUsageError; a missing value is
// "OPTION needs WHAT" for gridding and "OPTION needs a value" for the
// subcommands (kept as they were). An argument that starts with '-' and a
// digit is a positional one (a negative number).
KaParsedOptions KaParseOptions(KaCommand command, int argc, char** argv, const std::string& usage);

// The "options:" part of a command's usage: one entry per option it lists,
// in the table's order.
std::string KaOptionsUsage(KaCommand command);
