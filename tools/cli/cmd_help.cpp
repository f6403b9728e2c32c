// help: the commands, or one command's options. completion (hidden): a bash or
// zsh completion script made from the tool's own command tree, so every command
// and option the tool has is completed and nothing it lacks.
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"

namespace tevash_cli {

namespace {

struct command_words {
    std::string name, description;
    std::vector<std::string> options;  // long names, else short ones, with dashes
    std::vector<std::string> valued;   // those of `options` that take a value
    bool file = false;                 // a positional file argument
};

command_words words_of(const CLI::App& app) {
    command_words w{app.get_name(), app.get_description(), {}, {}, false};
    for (const CLI::Option* opt : app.get_options()) {
        if (!opt->nonpositional()) {
            w.file = w.file || opt->get_name() == "file";
            continue;
        }
        const auto& longs = opt->get_lnames();
        const std::string name = longs.empty() ? "-" + opt->get_snames().front() : "--" + longs[0];
        w.options.push_back(name);
        if (opt->get_items_expected_max() != 0) w.valued.push_back(name);
    }
    return w;
}

// The visible commands (those with a group: completion has none).
std::vector<command_words> commands_of(const CLI::App& app) {
    std::vector<command_words> out;
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; }))
        if (!sub->get_group().empty()) out.push_back(words_of(*sub));
    return out;
}

// The words once each, in their first order.
std::string joined(const std::vector<std::string>& words, const std::string& between = " ") {
    std::string out;
    for (size_t i = 0; i < words.size(); ++i)
        if (std::find(words.begin(), words.begin() + i, words[i]) == words.begin() + i)
            out += (out.empty() ? "" : between) + words[i];
    return out;
}

std::string quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// What both completion scripts offer: the subcommands, the top-level words,
// every subcommand's name, and every option that takes a value.
struct completion_words {
    std::vector<command_words> commands;
    command_words top;
    std::vector<std::string> names, valued;
};

completion_words completion_words_of(const CLI::App& app) {
    completion_words w{commands_of(app), words_of(app), {}, {}};
    w.valued = w.top.valued;
    for (const auto& c : w.commands) {
        w.names.push_back(c.name);
        w.valued.insert(w.valued.end(), c.valued.begin(), c.valued.end());
    }
    return w;
}

void write_bash(const CLI::App& app, std::ostream& out) {
    const completion_words w = completion_words_of(app);
    const auto& commands = w.commands;
    const command_words& top = w.top;
    const std::vector<std::string>& names = w.names;
    const std::vector<std::string>& valued = w.valued;
    out << "# bash completion for tevash, made by `tevash completion bash`\n"
           "_tevash() {\n"
           "    local cur=\"${COMP_WORDS[COMP_CWORD]}\" prev=\"${COMP_WORDS[COMP_CWORD-1]}\"\n"
           "    local cmd=\"\" words=\"\" i\n"
           "    COMPREPLY=()\n"
           "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
           "        case \"${COMP_WORDS[i]}\" in\n"
           "            "
        << joined(names, "|")
        << ") cmd=\"${COMP_WORDS[i]}\"; break ;;\n"
           "        esac\n"
           "    done\n"
           "    case \"$prev\" in\n"
           "        --store) COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n"
           "        --runtime-dir) COMPREPLY=($(compgen -d -- \"$cur\")); return ;;\n"
           "        "
        << joined(valued, "|")
        << ") return ;;\n"
           "    esac\n"
           "    case \"$cmd\" in\n"
           "        \"\") words=\""
        << joined(top.options) << ' ' << joined(names) << "\" ;;\n";
    for (const auto& c : commands) {
        out << "        " << c.name << ") words=\"" << joined(c.options);
        if (c.name == "help") out << ' ' << joined(names);
        out << "\"" << (c.file ? "; COMPREPLY=($(compgen -f -- \"$cur\"))" : "") << " ;;\n";
    }
    out << "    esac\n"
           "    COMPREPLY+=($(compgen -W \"$words\" -- \"$cur\"))\n"
           "}\n"
           "complete -F _tevash tevash\n";
}

void write_zsh(const CLI::App& app, std::ostream& out) {
    const completion_words w = completion_words_of(app);
    const auto& commands = w.commands;
    const command_words& top = w.top;
    const std::vector<std::string>& names = w.names;
    const std::vector<std::string>& valued = w.valued;
    out << "#compdef tevash\n"
           "# zsh completion for tevash, made by `tevash completion zsh`\n"
           "_tevash() {\n"
           "    local -a commands\n"
           "    commands=(\n";
    for (const auto& c : commands)
        out << "        " << quoted(c.name + ":" + c.description) << '\n';
    out << "    )\n"
           "    local cmd=\"\" i\n"
           "    for ((i = 2; i < CURRENT; i++)); do\n"
           "        case \"${words[i]}\" in\n"
           "            ("
        << joined(names, "|")
        << ") cmd=\"${words[i]}\"; break ;;\n"
           "        esac\n"
           "    done\n"
           "    case \"${words[CURRENT-1]}\" in\n"
           "        (--store) _files; return ;;\n"
           "        (--runtime-dir) _files -/; return ;;\n"
           "        ("
        << joined(valued, "|")
        << ") return ;;\n"
           "    esac\n"
           "    case \"$cmd\" in\n"
           "        (\"\") _describe -t commands 'tevash command' commands; compadd -- "
        << joined(top.options) << " ;;\n";
    for (const auto& c : commands) {
        out << "        (" << c.name << ") " << (c.file ? "_files; " : "") << "compadd -- "
            << joined(c.options);
        if (c.name == "help") out << ' ' << joined(names);
        out << " ;;\n";
    }
    out << "    esac\n"
           "}\n"
           "_tevash \"$@\"\n";
}

}  // namespace

void add_help_commands(CLI::App& app, context& ctx) {
    auto name = std::make_shared<std::string>();
    auto* help = app.add_subcommand("help", "Show the commands, or one command's options");
    help->add_option("command", *name, "A command");
    help->callback([&app, &ctx, name] {
        if (name->empty()) {
            std::cout << app.help();
            return;
        }
        for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
            if (sub->get_name() == *name && !sub->get_group().empty()) {
                std::cout << sub->help(app.get_name());
                return;
            }
        }
        ctx.exit_code = context::usage("unknown command '" + *name + "' (see tevash help)");
    });

    auto shell = std::make_shared<std::string>();
    auto* completion =
        app.add_subcommand("completion", "Write a shell completion script (bash or zsh)");
    completion->group("");
    completion->add_option("shell", *shell, "bash or zsh")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh"}));
    completion->callback([&app, shell] {
        if (*shell == "bash")
            write_bash(app, std::cout);
        else
            write_zsh(app, std::cout);
    });
}

}  // namespace tevash_cli
