// rtls-mqtt - a gateway's reports and events for an MQTT broker.
#include "common/program.h"
#include "rtls-mqtt/command_line.h"

int main(int argc, char** argv)
{
    return tools::run_main(argc, argv, mqtt::run_command_line);
}
