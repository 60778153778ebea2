// main - brings up logging and the gateway, waits for a signal to stop, takes everything down again.

#include "base/common.h"
#include "base/config.h"
#include "base/logger.h"
#include "base/signals.h"
#include "net/curve.h"
#include "net/descriptors.h"
#include "net/link_watch.h"
#include "rtls-gateway.h"
#include "watch/service_manager.h"

#include <curl/curl.h>
#include <czmq.h>

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <new>
#include <system_error>
#include <thread>

using namespace rtls;

static constexpr int idle_step_ms = 100;
static constexpr std::chrono::milliseconds stop_limit{4800};

// False after saying that there are too few. Before anything is opened, the logger included: the libraries
// end the program when they get no descriptor at their start.
static bool has_descriptors()
{
    const size_t allowed = raise_descriptor_limit(); // each bridge costs one
    if (allowed >= descriptors_needed)
        return true;
    openlog("rtls-gateway", LOG_PERROR, LOG_USER);
    syslog(LOG_ERR,
           "%zu open files are allowed, at least %zu are needed! See ulimit -Hn, or LimitNOFILE=", allowed,
           descriptors_needed);
    closelog();
    return false;
}

static void log_versions()
{
    int zmq_major = 0;
    int zmq_minor = 0;
    int zmq_patch = 0;
    zmq_version(&zmq_major, &zmq_minor, &zmq_patch);
    int czmq_major = 0;
    int czmq_minor = 0;
    int czmq_patch = 0;
    zsys_version(&czmq_major, &czmq_minor, &czmq_patch);
    logger_info(g_logger, "Starting %s, ZMQ version %d.%d.%d, CZMQ version %d.%d.%d", rtls_gateway_version,
                zmq_major, zmq_minor, zmq_patch, czmq_major, czmq_minor, czmq_patch);
}

// The configuration file named on the command line, or nullptr after saying what is wrong.
static const char* parse_options(int argc, char* argv[])
{
    const char* config_file = nullptr;
    for (int option = 0; (option = getopt(argc, argv, "c:")) != -1;) {
        if (option != 'c') {
            logger_info(g_logger, "Usage: %s -c config_file", argv[0]);
            return nullptr;
        }
        config_file = optarg;
    }
    if (!config_file) // the line break is part of the text
        logger_error(g_logger, "The configuration file is not defined! Usage: %s -c config_file\n", argv[0]);
    return config_file;
}

// What the gateway itself could read. False when the records must stay here.
static bool secure_debug_broker(zconfig_t* config)
try {
    curve_certificates certificates;
    if (!certificates.read(config) || !certificates.closes(server_link::debug_broker))
        return true;
    const curve_keys keys = certificates.keys(server_link::debug_broker);
    return logger_secure(g_logger_ctx, keys.server.c_str(), keys.own_public.c_str(), keys.own_secret.c_str());
} catch (const std::bad_alloc&) {
    logger_error(g_logger, str_out_of_memory, __func__);
    return false;
}

static void connect_debug_broker(void* gateway)
{
    const char* address = nullptr;
    zconfig_t* config = rtls_gateway_get_config(gateway);
    if (!config_value_get(config, "debug_broker_address", &address))
        logger_error(g_logger, "'debug_broker_address' is not defined in the config file");
    else if (secure_debug_broker(config))
        logger_connect(g_logger_ctx, address);
}

// A stop takes five seconds at most. The libraries' ends wait for threads of theirs that may stand in a
// name server's silence for minutes; by then the daemon's own work is done, and the log has what it said.
static void limit_the_stop()
{
    try {
        std::thread{[] {
            block_all_signals();
            pthread_setname_np(pthread_self(), "rtls-stop");
            std::this_thread::sleep_for(stop_limit);
            _exit(EXIT_SUCCESS);
        }}.detach();
    } catch (const std::system_error& failure) {
        logger_warning(g_logger, "the stop has no limit: %s", failure.what());
    }
}

// False when the gateway cannot be made. One that cannot run is logged, but no failure of the program.
static bool serve(const char* config_file)
{
    void* gateway = rtls_gateway_new(config_file);
    if (!gateway)
        return false;
    connect_debug_broker(gateway);
    service_manager manager{*rtls_gateway_get_services(gateway)};
    if (rtls_gateway_run(gateway)) {
        manager.ready();
        while (!is_stop_requested()) {
            sleep_open_to_stop_signals(idle_step_ms);
            logger_tend_broker(g_logger_ctx);
            manager.tend();
        }
    }
    manager.stopping();
    limit_the_stop();
    rtls_gateway_destroy(&gateway);
    return true;
}

static bool serve_with_curl(const char* config_file)
{
    const CURLcode rc = curl_global_init(CURL_GLOBAL_ALL);
    if (rc != CURLE_OK) {
        logger_error(g_logger, "%s: curl_global_init: %s", "main", curl_easy_strerror(rc));
        return false;
    }
    const bool served = serve(config_file);
    curl_global_cleanup();
    return served;
}

int main(int argc, char* argv[])
{
    if (!has_descriptors())
        return EXIT_FAILURE;
    // First of all else: from here on SIGTERM is an orderly stop, whenever it comes.
    make_io_threads();
    zsys_init();
    stop_on_hangup();
    block_stop_signals();
    (void)std::signal(SIGPIPE, SIG_IGN);

    if (!logger_init("rtls-gateway"))
        return EXIT_FAILURE;
    log_versions();
    const char* config_file = parse_options(argc, argv);
    const bool served = config_file && serve_with_curl(config_file);
    if (served)
        logger_info(g_logger, "Exiting");
    logger_cleanup();
    return served ? EXIT_SUCCESS : EXIT_FAILURE;
}
