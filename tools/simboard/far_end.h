// The far end of the module's data link: a veth pair whose board end carries
// the module's network interface name and whose other end lives in a network
// namespace of the board's own, where hosts answer (or not) ICMP echo.
//
//   module end  <ifname>  10.64.0.2/24, in the board's network namespace
//   far end     far0      10.64.0.1/24 (answers echo while switched on)
//                         10.64.0.3/24 (a host that never answers)
//
// The far namespace's kernel never answers echo itself; this side does, so
// that every echo request is seen and recorded whether it is answered or not.
#pragma once

#include <string>

constexpr const char *FAR_IFNAME = "far0";
constexpr const char *MODULE_ADDRESS = "10.64.0.2";
constexpr const char *FAR_ADDRESS = "10.64.0.1";
constexpr const char *SILENT_ADDRESS = "10.64.0.3";

class far_end {
public:
    explicit far_end(std::string record_path) : record_path_(std::move(record_path)) {}
    ~far_end();
    far_end(const far_end &) = delete;
    far_end &operator=(const far_end &) = delete;

    // Called in the board's network namespace, by a single-threaded process:
    // builds the far namespace and the link, and comes back to the board's.
    bool build(const std::string &ifname, std::string *error);
    // Readable when an ICMP datagram reached the far end; -1 before build().
    int fd() const { return icmp_; }
    // Records each echo request waiting and answers it when it is for the far end.
    void serve();
    void set_answering(bool on) { answering_ = on; }
    bool answering() const { return answering_; }

private:
    std::string record_path_;
    int icmp_ = -1;
    bool answering_ = true;
};
