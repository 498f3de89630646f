#include "options.h"

#include "sclient/sclient.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <set>

namespace olt
{

namespace
{

constexpr int USAGE = 2; // exit status that tells a service manager that another try is no use
constexpr std::uint32_t MAX_PORTS = 8;
constexpr std::uint32_t LONGEST_GRACE = 24 * 60 * 60;

// "N=IFACE"
std::pair<std::uint32_t, std::string> parse_port(const std::string &text)
{
    const auto equals = text.find('=');
    std::uint32_t number = 0;
    const bool valid = equals != std::string::npos && equals + 1 < text.size() &&
                       CLI::detail::lexical_cast(text.substr(0, equals), number) && number >= 1 &&
                       number <= MAX_PORTS;
    if (!valid)
        throw CLI::ValidationError("--port", "\"" + text + "\" is not N=IFACE with N from 1 to 8");
    return {number, text.substr(equals + 1)};
}

void add_ports(Options &options, const std::vector<std::string> &texts)
{
    std::set<std::string> used{options.cpu};
    if (!options.host.empty() && !used.insert(options.host).second)
        throw CLI::ValidationError("--host", "interface " + options.host + " is given twice");
    for (const std::string &text : texts) {
        auto [number, interface] = parse_port(text);
        if (!used.insert(interface).second)
            throw CLI::ValidationError("--port", "interface " + interface + " is given twice");
        if (!options.ports.insert({number, std::move(interface)}).second)
            throw CLI::ValidationError("--port", "port " + std::to_string(number) + " is given twice");
    }
}

void check_required(const Options &options)
{
    if (!options.show && (options.cpu.empty() || options.ports.empty()))
        throw CLI::RequiredError("--cpu and at least one --port");
}

// Help and version go to standard output; anything wrong is one line on standard error.
[[noreturn]] void end(const CLI::App &app, const CLI::ParseError &error)
{
    if (error.get_exit_code() == 0)
        std::exit(app.exit(error));
    std::cerr << "olt-switch: " << error.what() << "; see olt-switch --help" << std::endl;
    std::exit(USAGE);
}

} // namespace

Options parse_options(int argc, char **argv)
{
    Options options;
    options.driver_socket = SCLIENT_DEFAULT_SOCKET;
    std::vector<std::string> ports;
    auto grace = static_cast<std::uint32_t>(options.stale_grace.count());
    bool no_datastore = false;

    CLI::App app("Software switch and switch-driver service of an optical line terminal's uplinks", "olt-switch");
    app.set_version_flag("--version", "olt-switch " OLT_SWITCH_VERSION);
    app.add_option("--cpu", options.cpu, "Interface towards the CPU: the switch's end of the \"ethv0\" pair")
        ->type_name("IFACE");
    app.add_option("--port", ports, "Interface of an uplink port, 1 to 8 (repeated)")
        ->allow_extra_args(false)
        ->type_name("N=IFACE");
    app.add_option(
           "--host", options.host,
           "Interface towards the host, whose traffic the trunks carry: the switch's end of a pair whose other "
           "end is the user's, in another network namespace")
        ->type_name("IFACE");
    app.add_option("--driver-socket", options.driver_socket, "Socket of the driver service")
        ->envname(SCLIENT_SOCKET_ENV)
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option("--state-socket", options.state_socket, "Socket that answers with the state")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option("--vlan", options.vlan, "VLAN of the tag on frames to the CPU")
        ->check(CLI::Range(1, 4094))
        ->type_name("VID")
        ->capture_default_str();
    app.add_option("--stale-grace", grace,
                   "Time in which a new daemon has to ask for the trunks of the one before it")
        ->check(CLI::Range(LONGEST_GRACE))
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_flag("--no-datastore", no_datastore, "Do not write interface entries and link status");
    app.add_flag(
        "--kernel-forwarding", options.kernel_forwarding,
        "Let rules of nftables forward the host's traffic: as fast as a bridge, and whole trains of segments");
    app.add_flag("--show", options.show, "Print the state of the running switch and end");
    try {
        app.parse(argc, argv);
        add_ports(options, ports);
        check_required(options);
    } catch (const CLI::ParseError &error) {
        end(app, error);
    }
    options.stale_grace = std::chrono::seconds(grace);
    options.datastore = !no_datastore;
    return options;
}

} // namespace olt
