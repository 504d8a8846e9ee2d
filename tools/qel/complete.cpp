// The shells' completion: the scripts, and the command that they call at each press of the key.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "program.h"

namespace {

// ---- the scripts

// They call `qel complete -- WORD...` for the completions of the last word: each line is a text, a tab and a
// description. ":files" and ":directories" leave the completion to the shell.
constexpr const char* bashScript = R"(# bash completion for qel
_qel()
{
    local line=${COMP_LINE:0:COMP_POINT} words=() i word piece
    # bash takes words apart at the characters of COMP_WORDBREAKS; the program wants them as typed.
    for ((i = 0; i <= COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        if ((i > 0)) && [[ $line != [[:blank:]]* ]]; then
            piece=${word:0:${#line}}
            words[-1]+=$piece
        else
            line=${line#"${line%%[![:blank:]]*}"}
            piece=${word:0:${#line}}
            words+=("$piece")
        fi
        line=${line:${#word}}
    done
    # Of the word, bash replaces only what follows the last such character.
    [[ -n $piece && -z ${piece//[$COMP_WORDBREAKS]/} ]] && piece=
    local quote=${piece:0:1}
    piece=${piece//[\\\'\"]/}
    words=("${words[@]//[\\\'\"]/}")
    local last=${words[-1]}
    local before=${last:0:${#last}-${#piece}}
    COMPREPLY=()
    while IFS= read -r line; do
        case $line in
            :files) compopt -o filenames; mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$piece") ;;
            :directories) compopt -o filenames; mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -d -- "$piece") ;;
            *)
                word=${line%%$'\t'*}
                [[ $word == *[=/@] ]] && compopt -o nospace
                word=${word:${#before}}
                [[ $quote == [\'\"] ]] || printf -v word %q "$word"
                COMPREPLY+=("$word")
                ;;
        esac
    done < <("$1" complete -- "${words[@]:1}" 2>/dev/null)
}
complete -F _qel qel
)";

constexpr const char* zshScript = R"(#compdef qel
_qel()
{
    local line word
    local -a whole open
    while IFS= read -r line; do
        word=${line%%$'\t'*}
        case $line in
            :files) _files ;;
            :directories) _files -/ ;;
            *[=/@]$'\t'*) open+=("${word//:/\\:}:${line#*$'\t'}") ;;
            *) whole+=("${word//:/\\:}:${line#*$'\t'}") ;;
        esac
    done < <($words[1] complete -- "${(@Q)words[2,CURRENT-1]}" "${(Q)PREFIX}" 2>/dev/null)
    (( $#whole )) && _describe -V qel whole
    (( $#open )) && _describe -V qel open -S ''
}
if [[ $funcstack[1] == _qel ]]; then _qel "$@"; else compdef _qel qel; fi
)";

constexpr const char* fishScript = R"(# fish completion for qel
function __qel_complete
    set -l words (commandline -opc) (commandline -ct)
    for line in ($words[1] complete -- (string unescape -- $words[2..]) 2>/dev/null)
        switch $line
            case :files
                __fish_complete_path (commandline -ct)
            case :directories
                __fish_complete_directories (commandline -ct)
            case '*'
                echo $line
        end
    end
end
complete -c qel -f -a '(__qel_complete)'
)";

struct Shell
{
    const char* name;
    const char* script;
};
constexpr Shell shells[] = {{"bash", bashScript}, {"zsh", zshScript}, {"fish", fishScript}};

std::vector<std::string> shellNames()
{
    std::vector<std::string> names;
    for (const Shell& shell : shells)
        names.emplace_back(shell.name);
    return names;
}

// ---- the completions of a word

struct Offered
{
    std::string text;
    std::string says;
};

std::map<const CLI::Option*, Offers>& offersOfOptions()
{
    static std::map<const CLI::Option*, Offers> offers;
    return offers;
}

// The completions of a value, chosen by its type name in the help.
std::vector<std::string> valuesOf(const CLI::Option& option, const Typed& typed)
{
    const auto own = offersOfOptions().find(&option);
    if (own != offersOfOptions().end())
        return own->second(typed);
    const std::string word = option.get_type_name().substr(0, option.get_type_name().find(':'));
    if (word == "FILE")
        return {":files"};
    if (word == "DIRECTORY")
        return {":directories"};
    if (word == "SERVER")
        return ServerNames();
    return {};
}

// Reads the words before the last one like the parser, and records what may follow.
class Reader
{
public:
    explicit Reader(const CLI::App& program) : command(&program) {}

    void Read(const std::string& word)
    {
        if (awaited != nullptr) {
            typed.options[awaited->get_name()] = word;
            awaited = nullptr;
        } else if (!onlyArguments && word == "--") {
            onlyArguments = true;
        } else if (!onlyArguments && word.size() > 1 && word.starts_with('-')) {
            const std::size_t equals = word.find('=');
            const CLI::Option* const option = command->get_option_no_throw(word.substr(0, equals));
            if (option == nullptr)
                return;
            if (option->get_expected_max() == 0)
                typed.options[option->get_name()] = {};
            else if (equals == std::string::npos)
                awaited = option;
            else
                typed.options[option->get_name()] = word.substr(equals + 1);
        } else if (const CLI::App* const sub = FindCommand(*command, word)) {
            command = sub;
            typed.arguments.clear();
        } else {
            typed.arguments.push_back(word);
        }
    }

    std::vector<Offered> Complete(const std::string& word)
    {
        std::vector<Offered> offered;
        const std::size_t equals = word.find('=');
        if (awaited != nullptr) {
            Add(offered, *awaited, "", word);
        } else if (!onlyArguments && word.starts_with('-') && equals != std::string::npos) {
            const CLI::Option* const option = command->get_option_no_throw(word.substr(0, equals));
            if (option != nullptr)
                Add(offered, *option, word.substr(0, equals + 1), word.substr(equals + 1));
        } else if (!onlyArguments && word.starts_with('-')) {
            for (const CLI::Option* const option : command->get_options())
                for (const std::string& name : option->get_lnames())
                    offered.push_back({"--" + name, option->get_description()});
        } else {
            for (const CLI::App* const sub : command->get_subcommands(nullptr))
                if (!sub->get_group().empty())
                    offered.push_back({sub->get_name(), SummaryOf(*sub)});
            if (const CLI::Option* const argument = Argument())
                Add(offered, *argument, "", word);
        }
        std::erase_if(offered, [&](const Offered& one) {
            return !one.text.starts_with(':') && !one.text.starts_with(word);
        });
        return offered;
    }

private:
    // The next positional argument; the last one may take more than one value.
    const CLI::Option* Argument() const
    {
        std::size_t before = typed.arguments.size();
        for (const CLI::Option* const option : command->get_options())
            if (option->get_positional() && (before-- == 0 || option->get_expected_max() > 1))
                return option;
        return nullptr;
    }

    void Add(std::vector<Offered>& offered, const CLI::Option& option, const std::string& before,
             const std::string& word)
    {
        typed.word = word;
        for (const std::string& value : valuesOf(option, typed))
            offered.push_back({(value.starts_with(':') ? "" : before) + value, option.get_description()});
    }

    const CLI::App* command;
    const CLI::Option* awaited = nullptr; // the option whose value follows
    bool onlyArguments = false;
    Typed typed;
};

void completeLine(const CLI::App& program, const std::vector<std::string>& words)
{
    // The user waits for the result: slow completions are left out.
    std::thread([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(180));
        std::_Exit(0);
    }).detach();
    Reader reader(program);
    for (std::size_t i = 0; i + 1 < words.size(); ++i)
        reader.Read(words[i]);
    std::vector<Offered> offered;
    try {
        offered = reader.Complete(words.empty() ? std::string() : words.back());
    } catch (xthrowable* failure) {
        FailureOf(failure);
    } catch (const CommandFailed&) {
        return;
    }
    std::string lines;
    for (const auto& [text, says] : offered)
        lines += Printable(text) + (text.starts_with(':') ? "" : '\t' + Printable(says)) + '\n';
    std::cout << lines << std::flush;
}

void printScript(const std::string& name)
{
    for (const Shell& shell : shells)
        if (name == shell.name)
            std::cout << shell.script;
}

} // namespace

void Offer(CLI::Option& option, Offers offers)
{
    offersOfOptions()[&option] = std::move(offers);
}

void AddCompletionCommands(CLI::App& program)
{
    const auto shell = std::make_shared<std::string>();
    CLI::App& completion =
        AddCommand(program, "completion", "Write the script with which a shell completes words for qel",
                   [shell] { printScript(*shell); });
    completion.footer("qel completion bash\tRead it in ~/.bashrc: source <(qel completion bash)\n"
                      "qel completion zsh\tRead it in ~/.zshrc: source <(qel completion zsh)\n"
                      "qel completion fish\tRead it in config.fish: qel completion fish | source\n");
    Offer(*completion.add_option("shell", *shell, "bash, zsh or fish")
               ->type_name("SHELL")
               ->required()
               ->check(CLI::IsMember(shellNames())),
          [](const Typed&) { return shellNames(); });

    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App& complete = AddCommand(program, "complete", "Print the completions of the last word",
                                    [&program, words] { completeLine(program, *words); });
    complete.group(""); // for those scripts: hidden from the help
    complete.add_option("word", *words, "The words after `qel` on the command line")->type_name("WORD");
}
