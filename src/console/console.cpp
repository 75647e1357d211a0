/** The debug console. */

#include "console/console.h"

console::console(const char*) {}

console::~console() = default;

int console::addCmd(void*, const char*, const char*, void (*)(const void*, const char*))
{
    return 0;
}

void console::service() {}

void console::runScript(const char*) {}

int console::scriptActive()
{
    return 0;
}

void console::showHelp() {}

void console::setPrompt() {}
