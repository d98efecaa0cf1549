#include "HelpFiles.hpp"

#include <algorithm>
#include <cctype>
#include <vector>

namespace notificationdb::tool {

namespace {

// The options a reader is shown: not --help, nothing hidden (an empty group hides an option).
std::vector<const CLI::Option*> shownOptions(const CLI::App& app) {
    return app.get_options(
        [&](const CLI::Option* option) { return option != app.get_help_ptr() && !option->get_group().empty(); });
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

bool takesValue(const CLI::Option& option) {
    return option.get_positional() || option.get_items_expected_max() > 0;
}

bool takesSeveral(const CLI::Option& option) {
    return option.get_items_expected_max() > 1;
}

// The option's own name: "--status", or "ID" for an argument.
std::string nameOf(const CLI::Option& option) {
    return option.get_positional() ? option.get_name(true) : "--" + option.get_lnames().front();
}

bool completesFiles(std::string_view typeName) {
    return typeName == "FILE" || typeName == "PATH";
}

// Text for roff: backslashes, minus signs and leading control characters taken literally.
std::string roff(std::string_view text) {
    std::string out;
    bool lineStart = true;
    for (const char character : text) {
        if (lineStart && (character == '.' || character == '\'')) out += "\\&";
        if (character == '\\') {
            out += "\\e";
        } else if (character == '-') {
            out += "\\-";
        } else {
            out += character;
        }
        lineStart = character == '\n';
    }
    return out;
}

// Paragraphs separated by blank lines, each filled by roff but for lines that start with two
// spaces, which are indented and kept as they are.
void writeParagraphs(std::ostream& out, std::string_view text) {
    bool first = true;
    for (std::size_t start = 0; start <= text.size();) {
        std::size_t end = text.find("\n\n", start);
        if (end == std::string_view::npos) end = text.size();
        if (!first) out << ".PP\n";
        first = false;
        bool literal = false;
        for (std::size_t line = start; line < end;) {
            const std::size_t stop = std::min(text.find('\n', line), end);
            const std::string_view words = text.substr(line, stop - line);
            if (words.starts_with("  ") != literal) {
                literal = !literal;
                out << (literal ? ".RS 4\n.nf\n" : ".fi\n.RE\n");
            }
            out << roff(literal ? words.substr(2) : words) << '\n';
            line = stop + 1;
        }
        if (literal) out << ".fi\n.RE\n";
        start = end + 2;
    }
}

// "\fB--status\fR \fISTATUS\fR", "\fIID\fR..." for the manual page.
std::string manualUsage(const CLI::Option& option) {
    std::string usage =
        option.get_positional() ? "\\fI" + roff(nameOf(option)) + "\\fR" : "\\fB" + roff(nameOf(option)) + "\\fR";
    if (!option.get_positional() && takesValue(option)) usage += " \\fI" + roff(option.get_type_name()) + "\\fR";
    if (takesSeveral(option)) usage += "...";
    return usage;
}

void writeManualOptions(std::ostream& out, const std::vector<const CLI::Option*>& options) {
    for (const CLI::Option* option : options) {
        out << ".TP\n" << manualUsage(*option) << '\n' << roff(option->get_description()) << '\n';
    }
}

// The cases of a completion's `case $command/$prev` for one command (`command` empty for the
// words before any command); `extra` are words offered besides its own options (the global
// options, or the command names).
void writeCompletionCases(std::ostream& out, const std::string& command, const CLI::App& app, const std::string& extra,
                          const ValueWords& words) {
    const auto options = shownOptions(app);
    for (const CLI::Option* option : options) {
        if (option->get_positional() || !takesValue(*option)) continue;
        const std::string type = option->get_type_name();
        out << "        " << (command.empty() ? "*" : command) << '/' << nameOf(*option) << ") ";
        if (completesFiles(type)) out << "files=1 ";
        if (const auto values = words(type); !values.empty()) out << "words=\"" << values << "\" ";
        out << ";;\n";
    }
    std::string list = "--help";
    bool files = false;
    for (const CLI::Option* option : options) {
        if (!option->get_positional()) {
            list += " " + nameOf(*option);
        } else if (completesFiles(option->get_type_name())) {
            files = true;
        } else if (const auto values = words(option->get_type_name()); !values.empty()) {
            list += " " + values;
        }
    }
    out << "        " << command << "/*) words=\"" << list << extra << "\"" << (files ? " files=1" : "") << " ;;\n";
}

}  // namespace

std::string globalOptionsHelp(const CLI::App& app) {
    const auto formatter = std::dynamic_pointer_cast<CLI::Formatter>(app.get_formatter());
    std::string text = "Global options (before or after the command):\n";
    for (const CLI::Option* option : shownOptions(app)) {
        // Only options that change what a command does; --version stands alone.
        if (option->get_lnames().front() != "version") text += formatter->make_option(option, false);
    }
    text.pop_back();  // the footer adds its own line break
    return text;
}

std::string notesHelp(std::span<const HelpNote> notes) {
    constexpr std::size_t width = 100;
    std::string text;
    for (const HelpNote& note : notes) {
        if (note.manualOnly) continue;
        text += (text.empty() ? "" : "\n") + std::string(note.title) + ":\n";
        std::size_t column = 0;
        for (std::size_t start = 0; start < note.text.size();) {
            const std::size_t end = std::min(note.text.find(' ', start), note.text.size());
            const std::string_view word = note.text.substr(start, end - start);
            if (column > 0 && column + 1 + word.size() > width) {
                text += '\n';
                column = 0;
            }
            if (column > 0) {
                text += ' ';
                ++column;
            }
            text += word;
            column += word.size();
            start = end + 1;
        }
        text += '\n';
    }
    return text;
}

void writeManualPage(std::ostream& out, const CLI::App& app, std::string_view version,
                     std::span<const HelpNote> notes) {
    std::string upper = app.get_name();
    for (char& character : upper) character = static_cast<char>(std::toupper(character));
    out << ".\\\" Written by `" << app.get_name() << " --generate-man`; edit the tool's command table instead.\n"
        << ".TH " << roff(upper) << " 1 \"\" \"" << roff(version) << "\" \"User Commands\"\n"
        << ".nh\n"
        << ".SH NAME\n"
        << roff(app.get_name()) << " \\- " << roff(app.get_description()) << '\n'
        << ".SH SYNOPSIS\n"
        << ".B " << roff(app.get_name()) << "\n[\\fIglobal options\\fR] \\fIcommand\\fR [\\fIarguments\\fR]\n"
        << ".SH GLOBAL OPTIONS\n";
    writeManualOptions(out, shownOptions(app));
    out << ".SH COMMANDS\n";
    for (const CLI::App* command : commandsOf(app)) {
        const auto options = shownOptions(*command);
        out << ".TP\n\\fB" << roff(command->get_name()) << "\\fR";
        for (const CLI::Option* option : options) {
            out << ' ' << (option->get_required() ? manualUsage(*option) : "[" + manualUsage(*option) + "]");
        }
        out << '\n' << roff(command->get_description()) << '\n';
        if (!options.empty()) {
            out << ".RS\n";
            writeManualOptions(out, options);
            out << ".RE\n";
        }
    }
    for (const HelpNote& note : notes) {
        out << ".SH " << roff(note.title) << '\n';
        writeParagraphs(out, note.text);
    }
}

void writeBashCompletion(std::ostream& out, const CLI::App& app, const ValueWords& words) {
    const std::string name = app.get_name();
    std::string function = "_" + name;
    for (char& character : function) character = std::isalnum(static_cast<unsigned char>(character)) ? character : '_';

    // Global options may stand before or after the command; --version stands alone.
    std::string globalValueOptions, globalOptions, commandNames;
    for (const CLI::Option* option : shownOptions(app)) {
        if (takesValue(*option)) globalValueOptions += (globalValueOptions.empty() ? "" : "|") + nameOf(*option);
        if (option->get_lnames().front() != "version") globalOptions += " " + nameOf(*option);
    }
    const auto commands = commandsOf(app);
    for (const CLI::App* command : commands) commandNames += " " + command->get_name();
    out << "# bash completion for " << name << "; written by `" << name << " --generate-completion`.\n"
        << function << "() {\n"
        << "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} command= words= files= prefix= i\n"
        << "    # --option=value: one word, or three where \"=\" breaks words\n"
        << "    if [[ $cur == --*=* ]]; then\n"
        << "        prev=${cur%%=*} prefix=${cur%%=*}= cur=${cur#*=}\n"
        << "    elif [[ $cur == = ]]; then\n"
        << "        cur=\n"
        << "    elif [[ $prev == = ]]; then\n"
        << "        prev=${COMP_WORDS[COMP_CWORD-2]}\n"
        << "    fi\n"
        << "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
        << "        case ${COMP_WORDS[i]} in\n";
    if (!globalValueOptions.empty()) {
        out << "            " << globalValueOptions << ") [[ ${COMP_WORDS[i+1]} == = ]] && ((i++)); ((i++)) ;;\n";
    }
    out << "            -*) ;;\n"
        << "            *) command=${COMP_WORDS[i]}; break ;;\n"
        << "        esac\n"
        << "    done\n"
        << "    case $command/$prev in\n";
    writeCompletionCases(out, "", app, commandNames, words);
    for (const CLI::App* command : commands) {
        writeCompletionCases(out, command->get_name(), *command, globalOptions, words);
    }
    out << "    esac\n"
        << "    COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
        << "    if [[ -n $files ]]; then\n"
        << "        compopt -o filenames 2>/dev/null\n"
        << "        COMPREPLY+=($(compgen -f -- \"$cur\"))\n"
        << "    fi\n"
        << "    COMPREPLY=(\"${COMPREPLY[@]/#/$prefix}\")\n"
        << "}\n"
        << "complete -F " << function << ' ' << name << '\n';
}

}  // namespace notificationdb::tool
