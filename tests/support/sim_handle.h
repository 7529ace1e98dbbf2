// A handle connected to a running video server emulator over one link, torn down in order.
// Tests using it link zqhandler_static and devsim_lib.
#pragma once

#include <devsim/devsim.h>

#include <cstdint>
#include <string>
#include <vector>
#include <zqhandler/zqhandler.h>

struct SimHandle {
    devsim::DevSim sim;
    t_zqhandler* zqh = zqhandler_create();
    int connected = -1; // what the connect returned

    explicit SimHandle(devsim::Link link, devsim::Protocol protocol = devsim::Protocol::sony) {
        switch (link) {
        case devsim::Link::udp:
            sim.listen_udp("127.0.0.1", 0);
            connected = zqhandler_connect_eth(zqh, "127.0.0.1", port(sim.udp_port()).c_str());
            break;
        case devsim::Link::tcp:
            sim.listen_tcp("127.0.0.1", 0);
            connected = zqhandler_connect_tcp(zqh, "127.0.0.1", port(sim.tcp_port()).c_str());
            break;
        case devsim::Link::serial:
            connected = zqhandler_connect_serial(zqh, sim.open_pty().c_str());
            break;
        }
        if (protocol != devsim::Protocol::sony)
            sim.set_protocol(link, protocol);
        sim.start();
    }
    ~SimHandle() {
        zqhandler_delete(zqh);
        sim.stop();
    }
    SimHandle(const SimHandle&) = delete;
    SimHandle& operator=(const SimHandle&) = delete;

    // zqhandler_cmd_misc with the bytes given.
    int misc(std::vector<uint8_t> bytes) {
        return zqhandler_cmd_misc(zqh, bytes.data(), static_cast<int>(bytes.size()));
    }

    static std::string port(uint16_t number) { return std::to_string(number); }
};

// A handle connected by datagram to the emulator's management endpoint.
struct MgmtHandle {
    devsim::DevSim sim;
    t_zqhandler* zqh = zqhandler_create();

    MgmtHandle() {
        uint16_t port = sim.listen_mgmt("127.0.0.1", 0);
        zqhandler_connect_eth(zqh, "127.0.0.1", std::to_string(port).c_str());
        sim.start();
    }
    ~MgmtHandle() {
        zqhandler_delete(zqh);
        sim.stop();
    }
};
