#include "tests/kernel/MfcFeeder.h"

// The C library's header must come before the kernel's.
#include <netinet/in.h>

#include <cerrno>
#include <linux/mroute.h>
#include <net/if.h>
#include <sys/socket.h>
#include <system_error>

namespace Agent::Kernel::Test {
namespace {

template <class T>
void set(const Fd& fd, int option, const T& value, const char* what) {
    if (setsockopt(fd.get(), IPPROTO_IP, option, &value, sizeof value) != 0)
        throw std::system_error(errno, std::generic_category(), what);
}

vifctl vifOf(int vif, unsigned char flags) {
    vifctl control{};
    control.vifc_vifi = static_cast<vifi_t>(vif);
    control.vifc_flags = flags;
    control.vifc_threshold = 1;
    return control;
}

} // namespace

MfcFeeder::MfcFeeder(std::uint32_t table)
    : fd_(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_IGMP)) {
    if (!fd_)
        throw std::system_error(errno, std::generic_category(), "IGMP socket");
    set(fd_, MRT_TABLE, table, "MRT_TABLE");
    set(fd_, MRT_INIT, 1, "MRT_INIT");
}

void MfcFeeder::vifIs(int vif, const std::string& interface) {
    vifctl control = vifOf(vif, VIFF_USE_IFINDEX);
    control.vifc_lcl_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    set(fd_, MRT_ADD_VIF, control, "MRT_ADD_VIF");
}

void MfcFeeder::registerVifIs(int vif) {
    set(fd_, MRT_ADD_VIF, vifOf(vif, VIFF_REGISTER), "MRT_ADD_VIF");
}

void MfcFeeder::vifDel(int vif) {
    set(fd_, MRT_DEL_VIF, vifOf(vif, 0), "MRT_DEL_VIF");
}

void MfcFeeder::routeIs(const MfcKey& key, int parentVif, const std::vector<int>& vifs) {
    route(MRT_ADD_MFC, key, parentVif, vifs);
}

void MfcFeeder::proxyIs(const MfcKey& key, int parentVif, const std::vector<int>& vifs) {
    route(MRT_ADD_MFC_PROXY, key, parentVif, vifs);
}

void MfcFeeder::routeDel(const MfcKey& key, int parentVif) {
    route(MRT_DEL_MFC, key, parentVif, {});
}

void MfcFeeder::route(int option, const MfcKey& key, int parentVif, const std::vector<int>& vifs) {
    mfcctl control{};
    control.mfcc_origin.s_addr = htonl(key.source);
    control.mfcc_mcastgrp.s_addr = htonl(key.group);
    control.mfcc_parent = static_cast<vifi_t>(parentVif);
    for (int vif : vifs)
        control.mfcc_ttls[vif] = 1;
    set(fd_, option, control, "MFC entry");
}

} // namespace Agent::Kernel::Test
