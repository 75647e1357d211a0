#pragma once

/**
 * The debug console: a line-oriented command interpreter for bench work, polled by the audio manager loop.
 *
 *   in:  lines of standard input or of a script, one for each service()
 *   out: calls of the handlers registered for the first word of a line
 *
 * Nothing is read yet and nothing is printed: standard input is left alone. Thread: audio manager. No lock.
 */
class console
{
public:
    /** @param p  the prompt, at most 8 characters and without conversions: it serves as a format; null for "CMD:> " */
    explicit console(const char* p);
    ~console();
    console(const console&) = delete;
    console& operator=(const console&) = delete;

    /**
     * Registers a command; a later one shadows an earlier one of the same name.
     *
     * @param ptr      context, handed to the handler as its first argument; not owned
     * @param c        the command's word, copied
     * @param h        its help text, copied
     * @param handler  called with `ptr` and the whole line, newline included
     * @return 0
     */
    int addCmd(void* ptr, const char* c, const char* h, void (*handler)(const void*, const char*));

    /** One polling step: handles at most one line and never waits. */
    void service();

    /** Opens a script whose lines service() then takes instead of standard input's. */
    void runScript(const char* script_name);

    /** Whether a script is open. */
    int scriptActive();

    /** Prints the help texts, newest command first. */
    void showHelp();

    /** Writes the prompt to standard output. */
    void setPrompt();
};
