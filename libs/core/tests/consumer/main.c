/* Uses the installed logging library from C, as its headers promise. */
#include <core/clogger.h>

#include <stdio.h>

int main(void)
{
    tav_logger logger = create_logger("consumer");
    tav_component_logger component = create_component_logger(logger, "main");
    if (component == NULL)
        return 1;
    const bool wanted = logger_debug_is_wanted(component);
    const tav_timestamp_t epoch = {0, 5};
    logger_debug_ts(component, epoch, "%s", "debug");
    logger_info(component, "%s", "text");
    destroy_component_logger(component);
    destroy_logger(logger);
    puts(wanted ? "debug records wanted by nobody" : "the library works");
    return wanted ? 1 : 0;
}
