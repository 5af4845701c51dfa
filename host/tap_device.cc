// SPDX-License-Identifier: MIT
#include "host/tap_device.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/kern.h"

namespace {

constexpr uint32_t kEthernetHeader = 14;
constexpr char kTunDevice[] = "/dev/net/tun";
// A slot that a frame fills to its end may not hold all of it.
constexpr uint32_t kMostMtu = kSlotBytes - 1 - kEthernetHeader;

tap_device *tap_of(const sample_device *device) {
    return const_cast<tap_device *>(reinterpret_cast<const tap_device *>(device));
}
static_assert(offsetof(tap_device, device) == 0);

uint32_t read_address(const uint8_t *address) {
    return static_cast<uint32_t>(address[0]) << 24 | static_cast<uint32_t>(address[1]) << 16 |
           static_cast<uint32_t>(address[2]) << 8 | address[3];
}

// The record

void record(tap_device *tap, const void *bytes, uint32_t length) {
    if (tap->recorder == nullptr || tap->record_failed) return;
    pcap_pkthdr header = {};
    gettimeofday(&header.ts, nullptr);
    header.caplen = header.len = length;
    pcap_dump(reinterpret_cast<u_char *>(tap->recorder), &header, static_cast<const u_char *>(bytes));
}

// Brings what was recorded into the file, and looks whether it is all there.
void flush_record(tap_device *tap) {
    if (tap->recorder == nullptr || tap->record_failed) return;
    const bool flushed = pcap_dump_flush(tap->recorder) == 0;
    const int error = errno;
    if (flushed && ferror(pcap_dump_file(tap->recorder)) == 0) return;
    tap->record_failed = true;
    fprintf(stderr, "zarn: can't write to %s: %s; from here on nothing is recorded\n",
            tap->recorder_path.c_str(), strerror(error));
}

bool open_record(tap_device *tap, const std::string &path) {
    tap->recorder_path = path;
    pcap_t *format = pcap_open_dead(DLT_EN10MB, 65535);
    if (format == nullptr) {
        fprintf(stderr, "zarn: no memory for the record\n");
        return false;
    }
    tap->recorder = pcap_dump_open(format, path.c_str());
    if (tap->recorder == nullptr) fprintf(stderr, "zarn: can't record: %s\n", pcap_geterr(format));
    pcap_close(format);
    return tap->recorder != nullptr;
}

// What the protocols call

void transmit(const sample_device *device, zarn_data_t *frame) {
    constexpr uint32_t kPieces = 256;  // a frame in more, each a few bytes, is cheaper to gather here
    tap_device *tap = tap_of(device);
    zarn_util_module_t *util = tap->slots.util;
    profile_bracket bracket(tap->stack, "zarn", "transmit");
    uint32_t length = frame->length;
    if (length > device->mtu + kEthernetHeader ||
        (util->count_zarn_data_iovecs(frame) > kPieces && util->coalesce_zarn_data(frame, 0, length) != 0)) {
        tap->counts.not_sent++;
        util->isafe_delete_zarn_data(frame);
        return;
    }
    zarn_iovec pieces[kPieces];
    iovec vectors[kPieces];
    uint32_t count = util->get_zarn_data_iovecs(frame, pieces, kPieces);
    for (uint32_t i = 0; i < count; i++)
        vectors[i] = {pieces[i].base, pieces[i].length};
    ssize_t written;
    do {
        written = writev(tap->fd, vectors, static_cast<int>(count));
    } while (written < 0 && errno == EINTR);
    if (written != static_cast<ssize_t>(length)) {
        tap->counts.not_sent++;
        util->isafe_delete_zarn_data(frame);
        return;
    }
    tap->counts.sent++;
    tap->counts.sent_bytes += length;
    if (tap->recorder != nullptr) {
        uint8_t copy[kSlotBytes];
        record(tap, copy, util->copy_from_zarn_data(frame, 0, copy, length));
    }
    util->delete_zarn_data(frame);
}

uint32_t count_room(const sample_device *device) {
    int32_t room = count_free_slots(&tap_of(device)->slots) - kReservedSlots;
    return room > 0 ? static_cast<uint32_t>(room) : 0;
}

// The exchange pairs with the one in wait_for_tap: whoever finds 1 here has a wake-up on its way, and what
// was changed before is seen by the look behind it.
void request_attention(const sample_device *device) {
    tap_device *tap = tap_of(device);
    if (__atomic_exchange_n(&tap->attention, 1, __ATOMIC_ACQ_REL) == 0) eventfd_write(tap->attention_fd, 1);
}

int64_t read_time(const sample_device *) {
    return kern_time_us();
}

// Opening

struct interface_request {
    ifreq request = {};
    explicit interface_request(const std::string &name) { name.copy(request.ifr_name, IFNAMSIZ - 1); }
};

bool interface_exists(const std::string &name) {
    interface_request of(name);
    int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool exists = socket >= 0 && ioctl(socket, SIOCGIFFLAGS, &of.request) == 0;
    if (socket >= 0) close(socket);
    return exists;
}

// Whether the interface is one that this user may open.
bool is_own_interface(const std::string &name) {
    long owner = -1;
    if (FILE *file = fopen(("/sys/class/net/" + name + "/owner").c_str(), "r")) {
        if (fscanf(file, "%ld", &owner) != 1) owner = -1;
        fclose(file);
    }
    return owner == static_cast<long>(geteuid());
}

void print_grant(const tap_settings &settings) {
    const passwd *user = getpwuid(geteuid());
    const std::string who = user != nullptr ? user->pw_name : std::to_string(geteuid());
    const std::string device = " dev " + settings.name, tap = device + " mode tap";
    std::string steps;
    const bool closed = access(kTunDevice, R_OK | W_OK) != 0;
    if (closed) steps += std::string(" && chmod 0666 ") + kTunDevice;
    if (!closed || !is_own_interface(settings.name)) {
        if (interface_exists(settings.name)) steps += " && ip tuntap del" + tap;
        steps += " && ip tuntap add" + tap + " user " + who + " && ip addr add " +
                 tap_peer_address(settings) + "/" + std::to_string(settings.prefix) + device +
                 " && ip link set" + device + " up";
    }
    fprintf(stderr, "zarn: no right to open %s; this grants it:\n\n  sudo sh -c '%s'\n\n",
            settings.name.c_str(), steps.substr(strlen(" && ")).c_str());
}

// Tells why the device can't be had.
void print_open_error(const tap_settings &settings, int error) {
    const char *name = settings.name.c_str();
    switch (error) {
        case EPERM:
        case EACCES:
            print_grant(settings);
            break;
        case EBUSY:
            fprintf(stderr, "zarn: %s is in use by another program: end that, or name another interface\n",
                    name);
            break;
        case EINVAL:
            fprintf(
                stderr,
                "zarn: %s is an interface of another kind: name one made by 'ip tuntap add', or a new one\n",
                name);
            break;
        case ENOENT:
        case ENODEV:
        case ENXIO:
            fprintf(stderr,
                    "zarn: this machine has no TAP devices: 'sudo modprobe tun' may bring /dev/net/tun\n");
            break;
        default:
            fprintf(stderr, "zarn: can't open %s: %s\n", name, strerror(error));
    }
}

// 0, or the error.
int open_interface(const std::string &name, int *fd) {
    *fd = open(kTunDevice, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (*fd < 0) return errno;
    interface_request of(name);
    of.request.ifr_flags = IFF_TAP | IFF_NO_PI;
    if (ioctl(*fd, TUNSETIFF, &of.request) == 0) return 0;
    const int error = errno;
    close(*fd);
    *fd = -1;
    return error;
}

// A locally administered address, the same for each run with this IPv4 address.
void choose_hardware(const sample_device &device, const uint8_t *machine, uint8_t *hardware) {
    hardware[0] = 0x02;
    hardware[1] = 0x7a;
    memcpy(hardware + 2, device.address, sizeof(device.address));
    if (memcmp(hardware, machine, 6) == 0) hardware[1]++;
}

// Brings the link up and learns what there is to know about the interface. False with a line on stderr.
bool set_up_interface(tap_device *tap, int socket) {
    const char *name = tap->name.c_str();
    interface_request hardware(tap->name), mtu(tap->name), own(tap->name), flags(tap->name);
    if (ioctl(socket, SIOCGIFHWADDR, &hardware.request) != 0 ||
        ioctl(socket, SIOCGIFMTU, &mtu.request) != 0 || ioctl(socket, SIOCGIFFLAGS, &flags.request) != 0) {
        fprintf(stderr, "zarn: can't ask about %s: %s\n", name, strerror(errno));
        return false;
    }
    choose_hardware(tap->device, reinterpret_cast<uint8_t *>(hardware.request.ifr_hwaddr.sa_data),
                    tap->device.hardware);
    tap->device.mtu = static_cast<uint32_t>(mtu.request.ifr_mtu);
    if (tap->device.mtu > kMostMtu) {
        fprintf(stderr,
                "zarn: %s sends packets of up to %u bytes, and %u is the most here; this helps:\n\n"
                "  sudo ip link set dev %s mtu 1500\n\n",
                name, tap->device.mtu, kMostMtu, name);
        return false;
    }
    if (ioctl(socket, SIOCGIFADDR, &own.request) == 0) {
        sockaddr_in address;
        memcpy(&address, &own.request.ifr_addr, sizeof(address));
        if (memcmp(&address.sin_addr, tap->device.address, sizeof(tap->device.address)) == 0) {
            fprintf(stderr, "zarn: %s is the machine's own address on %s: the host needs another one\n",
                    address_text(tap->device.address).c_str(), name);
            return false;
        }
    }
    if ((flags.request.ifr_flags & IFF_UP) == 0) {
        flags.request.ifr_flags |= IFF_UP;
        if (ioctl(socket, SIOCSIFFLAGS, &flags.request) != 0)
            fprintf(stderr,
                    "zarn: the link of %s is down; this brings it up:\n\n  sudo ip link set dev %s up\n\n",
                    name, name);
    }
    return true;
}

bool ask_interface(tap_device *tap) {
    int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        fprintf(stderr, "zarn: can't ask about %s: %s\n", tap->name.c_str(), strerror(errno));
        return false;
    }
    bool asked = set_up_interface(tap, socket);
    close(socket);
    return asked;
}

}  // namespace

std::string address_text(const uint8_t *address) {
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, address, text, sizeof(text));
    return text;
}

std::string tap_peer_address(const tap_settings &settings) {
    uint32_t own = read_address(settings.address), bits = 0xffffffffu >> settings.prefix;
    // The first host of the network, or the second; where there are but two, the other one.
    uint32_t peer = bits == 1 ? own ^ 1 : (own & ~bits) | ((own & bits) == 1 ? 2 : 1);
    peer = htonl(peer);
    return address_text(reinterpret_cast<uint8_t *>(&peer));
}

bool open_tap_device(tap_device *tap, const tap_settings &settings) {
    tap->name = settings.name;
    memcpy(tap->device.address, settings.address, sizeof(settings.address));
    tap->device.prefix = settings.prefix;
    tap->device.transmit = transmit;
    tap->device.room = count_room;
    tap->device.request_attention = request_attention;
    tap->device.now = read_time;
    const int error = open_interface(settings.name, &tap->fd);
    if (error != 0) {
        print_open_error(settings, error);
        return false;
    }
    if (getentropy(tap->device.secret, sizeof(tap->device.secret)) != 0) {
        fprintf(stderr, "zarn: no random numbers: %s\n", strerror(errno));
        close_tap_device(tap);
        return false;
    }
    tap->attention_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (tap->attention_fd < 0) fprintf(stderr, "zarn: can't make an eventfd: %s\n", strerror(errno));
    if (tap->attention_fd >= 0 && ask_interface(tap) &&
        (settings.record_path.empty() || open_record(tap, settings.record_path)))
        return true;
    close_tap_device(tap);
    return false;
}

bool create_tap_slots(tap_device *tap, const protocol_stack *stack) {
    tap->stack = stack;
    if (create_frame_slots(&tap->slots, stack->util, kDeviceSlots) == 0) return true;
    fprintf(stderr, "zarn: no memory for received frames\n");
    return false;
}

int32_t delete_tap_slots(tap_device *tap) {
    return delete_frame_slots(&tap->slots);
}

void close_tap_device(tap_device *tap) {
    flush_record(tap);
    if (tap->recorder != nullptr) pcap_dump_close(tap->recorder);
    if (tap->attention_fd >= 0) close(tap->attention_fd);
    if (tap->fd >= 0) close(tap->fd);
    tap->recorder = nullptr;
    tap->attention_fd = tap->fd = -1;
}

bool wait_for_tap(tap_device *tap) {
    pollfd polled[] = {{tap->fd, POLLIN, 0}, {tap->attention_fd, POLLIN, 0}};
    int ready = tap->recorder != nullptr ? poll(polled, 2, 0) : 0;
    if (ready == 0) {
        flush_record(tap);  // whoever looks at it while nothing happens finds all that did
        ready = poll(polled, 2, -1);
    }
    if (ready < 0 && errno != EINTR) {
        fprintf(stderr, "zarn: can't wait for %s: %s\n", tap->name.c_str(), strerror(errno));
        return false;
    }
    if (ready > 0 && (polled[0].revents & (POLLERR | POLLNVAL)) != 0) {
        fprintf(stderr, "zarn: the interface %s is gone\n", tap->name.c_str());
        return false;
    }
    if (ready > 0 && polled[1].revents != 0) {
        eventfd_t requests;
        eventfd_read(tap->attention_fd, &requests);
        __atomic_exchange_n(&tap->attention, 0, __ATOMIC_ACQ_REL);
    }
    return true;
}

tap_read read_tap_frame(tap_device *tap, zarn_data_t **out) {
    // Where a frame goes that has no slot, so that the device's queue moves on.
    static uint8_t waste[kSlotBytes];
    profile_bracket bracket(tap->stack, "zarn", "receive");
    uint8_t *slot = take_slot(&tap->slots);
    uint8_t *bytes = slot != nullptr ? slot : waste;
    const ssize_t got = read(tap->fd, bytes, kSlotBytes);
    const uint32_t length = got > 0 ? static_cast<uint32_t>(got) : 0;
    zarn_data_t *data = length != 0 && slot != nullptr ? wrap_slot(&tap->slots, slot, length) : nullptr;
    if (data == nullptr && slot != nullptr) recycle_slot(slot);
    if (length == 0) return tap_read::kNothing;
    tap->counts.received++;
    tap->counts.received_bytes += length;
    record(tap, bytes, length);
    if (data == nullptr) {
        tap->counts.without_room++;
        return tap_read::kDropped;
    }
    if (length < kEthernetHeader || length == kSlotBytes) {
        tap->counts.unfit++;
        tap->slots.util->isafe_delete_zarn_data(data);
        return tap_read::kDropped;
    }
    *out = data;
    return tap_read::kFrame;
}
