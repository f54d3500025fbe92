// NAT servers behind a router on an interface of their own, and the answers that they send. What is
// forwarded to them is another test's matter: here connections are known by their ports.
#pragma once

#include "lb_nat.h"

#include "record_fixture.h"

class NatFixture : public RecordFixture
{
  protected:
    static constexpr const char *R = "10.1.0.200";
    static constexpr const char *ROUTER = "10.1.0.254";

    void SetUp() override
    {
        RecordFixture::SetUp();
        ASSERT_ADDED(add_interface("eth1", stack::ethernet(2)));
        ASSERT_ADDED(add_ifaddr("eth1", "10.1.0.1/24"));
        ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_CONNECTION, 0, LBSEL_ALGORIGHM_CONNECTION));
    }
    void TearDown() override
    {
        if (retaddr() != nullptr) {
            records::check_natports(retaddr());
        }
        RecordFixture::TearDown();
    }

    static std::string server_ip(int last) { return "10.2.0." + std::to_string(last); }
    static lbsrv_addable_t natted(const std::string &address = R,
                                  const std::string &router = ROUTER)
    {
        lbsrv_addable_t addable{};
        addable.nat = 1;
        addable.returnaddress = stack::ip(address);
        addable.routeraddress = stack::ip(router);
        return addable;
    }
    int add_natserver(const std::string &cluster, const std::string &server,
                      const lbsrv_addable_t &addable, lb_u16_t number = 80)
    {
        lbsrv_setable_t setable{};
        setable.weight = 1;
        return add_server(cluster, number, server, setable, addable);
    }
    int make_natserver(int last, const lbsrv_addable_t &addable = natted())
    {
        const int rc = add_natserver(C, server_ip(last), addable);
        meet(ROUTER, 0xFE);
        return rc;
    }

    static lb_retaddr_obj_t *retaddr(const std::string &address = R)
    {
        lbip_addr_t key = stack::ip(address);
        return lbexecutor != nullptr
                   ? static_cast<lb_retaddr_obj_t *>(lbll_select1(&lbexecutor->retaddrlist, &key))
                   : nullptr;
    }
    static lbsrv_obj_t *natserver(int last)
    {
        return object<lbsrv_obj_t>(stack::cfgkey(C, 80, server_ip(last)));
    }
    static lbsel_cr_obj_t *owner(lb_u16_t port) { return EXC_EPTGetCR(&retaddr()->ept, port); }

    // Sends a segment of a client's: whether it was forwarded.
    static bool segment(std::uint8_t flags, std::uint16_t sport,
                        const std::string &client = "10.9.0.1")
    {
        return !frame_for(packets::build({.src = client, .sport = sport, .flags = flags})).empty();
    }
    static packets::packet answer(std::uint16_t natport, int server = 11)
    {
        return {.src = server_ip(server),
                .dst = R,
                .sport = 80,
                .dport = natport,
                .flags = SYN | ACK,
                .payload = 7};
    }
    // Where an answer went: "address:port", or "" where it was not sent.
    static std::string answered(const packets::packet &p)
    {
        const packets::bytes sent = frame_for(packets::build(p));
        return sent.empty() ? ""
                            : packets::ip_at(sent, packets::ETH + 16) + ":" +
                                  std::to_string(packets::get16(sent, packets::ETH + 22));
    }
};
