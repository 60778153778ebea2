#include "base/tokenize.h"

#include "base/null_check.h"

namespace rtls {

static bool is_separator(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

void tokenize(char* line, uint16_t* pargc, char** argv, uint16_t max_arguments)
{
    if (pargc)
        *pargc = 0;
    if (any_null(__func__, line, pargc, argv))
        return;
    bool in_word = false;
    for (char* p = line; *p != '\0'; ++p) {
        if (!in_word && *pargc >= max_arguments)
            return;
        if (is_separator(*p)) {
            if (in_word)
                *p = '\0';
            in_word = false;
        } else if (!in_word) {
            argv[(*pargc)++] = p;
            in_word = true;
        }
    }
}

} // namespace rtls
