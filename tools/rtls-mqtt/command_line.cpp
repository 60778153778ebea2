#include "rtls-mqtt/command_line.h"

#include "rtls-mqtt/connector.h"
#include "rtls-mqtt/options.h"
#include "tap/program.h"

#include <fmt/format.h>

namespace mqtt {

static const char* const footer =
    R"(Topics:
  rtls/NAME/node/MAC/KIND  a node's last report of that kind, retained
  rtls/NAME/event/EVENT    what happens at the gateway
  rtls/NAME/status         "online" or "offline", retained
  rtls/NAME/losses         what did not get through, counted, retained
  rtls/NAME/command/...    with --allow-commands: reboot, delete, firmware-get, firmware-apply
  rtls/NAME/answer/...     what became of it
Ctrl-C or SIGTERM end it properly.
Examples:
  rtls-mqtt --tap tcp://127.0.0.1:5559 --gateway north
  rtls-mqtt --tap tcp://127.0.0.1:5559 --broker broker.example --ca ca.pem --login /etc/rtls-gateway/mqtt.login
  rtls-mqtt --tap ipc:///run/rtls-gateway/tap --allow-commands --terminal 127.0.0.1:4000
  mosquitto_sub -v -t 'rtls/north/#'
Exit status:
  0  done
  1  something that the others do not name
  2  the command line, or a file that it names, is wrong; nothing was done
  3  tap or broker do not answer, or do not let us in (with --timeout)
  4  done, but messages were lost, or left)";

int run_command_line(const tools::arguments& arguments)
{
    request asked;
    tap::program program{"rtls-mqtt", "Publishes a gateway's reports and events to an MQTT broker.", footer};
    add_options(program.options(), asked);
    return program.run(arguments, [&] {
        const connector_options what = settled(asked);
        if (tells_password(what.to))
            program.note(fmt::format("the password goes to {} in clear (--tls)", to_text(what.to.where)));
        return connector{what, program}.run();
    });
}

} // namespace mqtt
