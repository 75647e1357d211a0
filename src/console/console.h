#pragma once

#include <cstdio>
#include <ctime>

/**
 * The debug console: a line-oriented command interpreter for bench work, polled by the audio manager loop.
 *
 *   in:  standard input, made non-blocking, or a script: one line for each service()
 *   out: calls of the handlers registered for the first word of a line; echo, answers and prompt on standard output
 *
 * "help", "sleep" and "run" are its own. A line is what one read gives, up to 99 bytes: a terminal gives lines, a pipe
 * gives whatever has been written to it, and a line's rest comes as the next line. An empty line repeats the last
 * command, a line that begins with "#" is a comment. docs/console.md is the user's view.
 *
 * Thread: audio manager, all of it; no lock. Nothing here waits but the opening and reading of a script, and a
 * standard output whose reader has stopped. Standard output is not flushed: the loop does that once a pass.
 */
class console
{
public:
    /**
     * Makes descriptor 0 non-blocking (for everyone who shares it, a shell too), registers the console's own commands
     * and writes the prompt.
     *
     * @param p  the prompt, cut after 8 characters; serves as a format and so holds no conversions ("%%" is one
     *           percent sign; a text with a conversion is taken literally); null for "CMD:> "
     */
    explicit console(const char* p);
    /** Frees the commands and closes a script that is open. */
    ~console();
    console(const console&) = delete;
    console& operator=(const console&) = delete;

    /**
     * Registers a command; a later one shadows an earlier one of the same name.
     *
     * @param ptr      context, handed to the handler as its first argument; not owned
     * @param c        the command's word, copied; not null
     * @param h        its help text, copied; may be null
     * @param handler  called with `ptr` and the whole line, newline included, lent for the call; not null
     * @return 0
     */
    int addCmd(void* ptr, const char* c, const char* h, void (*handler)(const void*, const char*));

    /** One polling step: handles at most one line. With nothing typed it costs one system call. */
    void service();

    /** Opens a script whose lines service() then takes instead of standard input's; one that is open is closed first. */
    void runScript(const char* script_name);

    /** Whether a script is open. */
    int scriptActive();

    /** Prints the help texts, newest command first; the word of a command that has none. */
    void showHelp();

    /** Writes the prompt to standard output. */
    void setPrompt();

private:
    /** A command: a node of the list. */
    struct entry {
        char* cmd;                                 ///< the command's word, owned
        char* help;                                ///< help text, owned; null if there is none
        void (*handler)(const void*, const char*); ///< null for the console's own commands
        void* ptr;                                 ///< context for the handler; not owned
        void* next;                                ///< the next entry, owned; null in the last one
    };

    void registerBuiltins();
    bool isSleeping();
    int readLine();
    int readScriptLine();
    void closeScript();
    void executeLine();
    const entry* findCommand() const;
    void dispatch(const entry& command);
    void runScriptOfLine();
    void startSleep();

    entry* cCtxt = nullptr;               ///< head of the command list, newest first; owned
    char cline[100] = {};                 ///< the line being worked on, always terminated
    char last_cline[100] = {};            ///< the last command line, known or not, for an empty line; none yet: empty
    char prompt[10] = {};                 ///< at most 8 characters
    FILE* script = nullptr;               ///< the open script, or null; owned
    struct timespec nextCommandTime = {}; ///< when a running sleep ends, CLOCK_MONOTONIC; tv_sec 0: no sleep
};
