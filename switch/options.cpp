#include "options.h"

#include "sclient/sclient.h"

#include <CLI/CLI.hpp>

namespace olt
{

namespace
{

constexpr std::uint32_t MAX_PORTS = 8;

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
    for (const std::string &text : texts)
        if (!options.ports.insert(parse_port(text)).second)
            throw CLI::ValidationError("--port", "port " + text.substr(0, text.find('=')) + " is given twice");
}

} // namespace

Options parse_options(int argc, char **argv)
{
    Options options;
    options.driver_socket = SCLIENT_DEFAULT_SOCKET;
    std::vector<std::string> ports;
    unsigned grace = static_cast<unsigned>(options.stale_grace.count());
    bool no_datastore = false;

    CLI::App app("Software switch and switch-driver service of an optical line terminal's uplinks", "olt-switch");
    app.set_version_flag("--version", "olt-switch 0.1.0");
    app.add_option("--cpu", options.cpu, "Interface towards the CPU: the switch's end of the \"ethv0\" pair");
    app.add_option("--port", ports, "Interface of an uplink port, as N=IFACE (1 to 8, repeated)");
    app.add_option("--driver-socket", options.driver_socket, "Socket of the driver service")->capture_default_str();
    app.add_option("--state-socket", options.state_socket, "Socket that answers with the state")
        ->capture_default_str();
    app.add_option("--vlan", options.vlan, "VLAN of the tag on frames to the CPU")
        ->check(CLI::Range(1, 4094))
        ->capture_default_str();
    app.add_option("--stale-grace", grace, "Seconds that trunks of an earlier daemon outlive the next one's start")
        ->capture_default_str();
    app.add_flag("--no-datastore", no_datastore, "Do not write interface entries and link status");
    app.add_flag("--show", options.show, "Print the state of the running switch and end");
    try {
        app.parse(argc, argv);
        add_ports(options, ports);
        if (!options.show && (options.cpu.empty() || options.ports.empty()))
            throw CLI::RequiredError("--cpu and at least one --port");
    } catch (const CLI::ParseError &error) {
        std::exit(app.exit(error) == 0 ? 0 : 1);
    }
    options.stale_grace = std::chrono::seconds(grace);
    options.datastore = !no_datastore;
    return options;
}

} // namespace olt
