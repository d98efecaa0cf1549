#pragma once

// Help written from the command line's own definition, so that the help text, the manual page
// and the completion script cannot disagree: the commands, options, type names and descriptions
// all come from the CLI11 app that parses the arguments.

#include <CLI/CLI.hpp>

#include <functional>
#include <ostream>
#include <span>
#include <string>
#include <string_view>

namespace notificationdb::tool {

// A section of text that the help's footer shows and the manual page prints under its title.
struct HelpNote {
    std::string_view title;  // "EXIT STATUS"
    // Paragraphs separated by blank lines; a line that starts with two spaces is shown as it is
    // (a command in an example).
    std::string_view text;
    bool manualOnly = false;  // shown on the manual page but not in --help
};

// The words that complete a value of an option or argument of this type name ("KIND"); empty
// for free values. Values of type FILE or PATH complete file names.
using ValueWords = std::function<std::string(std::string_view typeName)>;

// The options of `app` itself (neither help nor hidden ones) as help lines, for the help of
// each command: "Global options:" and one line per option.
std::string globalOptionsHelp(const CLI::App& app);

// The notes as the help's footer: each title followed by its text (not the manual-only ones).
std::string notesHelp(std::span<const HelpNote> notes);

// A manual page in roff (section 1): name, synopsis, description, global options, every
// command with its arguments and options, then the notes as sections.
void writeManualPage(std::ostream& out, const CLI::App& app, std::string_view version, std::span<const HelpNote> notes);

// A bash completion script for `app`: command names, the options of each command, and values
// through `words`. It needs bash alone (no bash-completion helpers).
void writeBashCompletion(std::ostream& out, const CLI::App& app, const ValueWords& words);

}  // namespace notificationdb::tool
