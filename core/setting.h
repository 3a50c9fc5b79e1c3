// Settings: environment variables named TESSEL_... that turn on a safe behaviour where the
// engine's default keeps one that existing sites rely on. The server sets them (Apache's
// SetEnv) or the program's .profile does; docs/settings.md lists every one.
#ifndef TESSEL_CORE_SETTING_H
#define TESSEL_CORE_SETTING_H

#include <cstdlib>
#include <cstring>

// True when the setting name is "1". It is read afresh on every call, because .profile may
// set it after start-up.
inline bool setting_on(const char* name)
{
    const char* value = getenv(name);
    return value && strcmp(value, "1") == 0;
}

#endif
