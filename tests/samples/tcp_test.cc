// SPDX-License-Identifier: MIT
//
// TCP as a host, on a network that is the test itself: what is sent is written down, what is received is made
// up, and time is set. Everything is told as words, in the order in which it happens:
//
//     >FA:seq/ack+len   a segment for port 7 arrives, with these flags (F S R P A), numbers counted from the
//                       two SYNs and payload; then perhaps "w" its window, "m" its MSS, "s" its window scale,
//                       "k" that it may be told selectively, "b" from-to a block that it tells, "p" its port;
//                       "?" for other bytes than belong there, "," with more in the batch
//     <FA:seq/ack+len   a segment was sent; "b" the blocks that it tells, "w" the window, "o" the options;
//                       "*3": so many times; "'" numbers that were not used before
//     take send:N end delete wait:MS room:N   what the client, the clock and the device do
//     =N =N?M =end      what the client has taken; M bytes of it are wrong
//     !ready !data !closed !failed            what the client was told

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <sstream>

#include <zarn/zarn_endpoint_hooks.h>

#include "examples/modules/sample_protocol.h"
#include "tests/roster/roster_fixture.h"
#include "tests/support/failures.h"

extern "C" const void *const modules[];

namespace {

enum { kFin = 1, kSyn = 2, kReset = 4, kPush = 8, kAck = 16 };
const char kFlagNames[] = "FSRPA";

uint8_t byte_at(uint32_t position) {
    return static_cast<uint8_t>(position * 31 + (position >> 8));
}

uint32_t read(const uint8_t *from, int bytes) {
    uint32_t value = 0;
    while (bytes-- > 0)
        value = value << 8 | *from++;
    return value;
}

void write(uint8_t *to, int bytes, uint32_t value) {
    while (bytes-- > 0)
        to[bytes] = static_cast<uint8_t>(value), value >>= 8;
}

uint32_t number_behind(const std::string &word, char mark, uint32_t otherwise) {
    size_t at = word.find(mark);
    return at == std::string::npos ? otherwise : static_cast<uint32_t>(std::stoul(word.substr(at + 1)));
}

class tcp_test : public kernel_test {
 protected:
    void SetUp() override {
        kernel_test::SetUp();
        self_ = this;
        util_ = static_cast<const zarn_util_module_t *>(modules[0]);
        start();
    }

    void TearDown() override {
        stop();
        kernel_test::TearDown();
    }

    void start() {
        ASSERT_EQ(util_->head.std_ops(MODULE_START), 0);
        library_ = dlopen(ZARN_BUILD_DIR "/modules/network/tcp.so", RTLD_NOW);
        ASSERT_NE(library_, nullptr) << dlerror();
        tcp_ = static_cast<const sample_protocol_module *const *>(dlsym(library_, "modules"))[0];
        test_kernel::provide_module(ZARN_UTIL_MODULE_NAME, util_);
        test_kernel::provide_module("network/tcp", tcp_);
        test_kernel::provide_module("network/ipv4", &below_);
        provide_domains("2 {; out {; 1 {; 6 tcp ipv4; }; }; }");
        ASSERT_EQ(tcp_->protocol.head.std_ops(MODULE_START), 0);
        ASSERT_EQ(tcp_->host->attach(&device_, &below_), 0);
        ASSERT_EQ(util_->ep_new_endpoint(&listener_, SAMPLE_FAMILY, 1, 6), 0);
        listener_->copied_word_1 = 7;
        ASSERT_EQ(tcp_->endpoints->open(listener_), 0);
        hook_ = {nullptr, on_event, 2, 0, 0};
        ASSERT_EQ(ep_add_hook(util_, listener_, EP_EVENT_READY, &hook_), 0);
        util_->ep_set_backlog(listener_, 2);
    }

    void stop() {
        remove(std::exchange(child_, nullptr));
        ep_remove_hook(util_, listener_, EP_EVENT_READY, &hook_);
        remove(listener_);
        tcp_->host->detach();
        EXPECT_EQ(blocks_out(), "");
        EXPECT_EQ(tcp_->protocol.head.std_ops(MODULE_STOP), 0);
        dlclose(library_);
        test_kernel::running_clock clock;
        EXPECT_EQ(util_->head.std_ops(MODULE_STOP), 0);
        gMP = {};
    }

    void remove(zarn_endpoint_t *ep) {
        if (ep == nullptr) return;
        if (ep != listener_) {
            ep_remove_hook(util_, ep, SAMPLE_EVENT_DATA, &child_hooks_[0]);
            ep_remove_hook(util_, ep, SAMPLE_EVENT_ENDED, &child_hooks_[1]);
        }
        util_->ep_delete_endpoint(ep);
        util_->release_family_ref(SAMPLE_FAMILY);
    }

    static void on_event(zarn_endpoint_t *, uint32_t value, uintptr_t event, uintptr_t) {
        self_->note(event == 0               ? "!data"
                    : event == 2             ? "!ready"
                    : value == SAMPLE_FAILED ? "!failed"
                                             : "!closed");
    }

    // A child that was in place before its hooks is looked at for an end.
    void accept() {
        zarn_endpoint_t *next = util_->ep_dequeue_endpoint(listener_);
        if (next == nullptr) return;
        remove(std::exchange(child_, next));
        for (uint32_t event : {SAMPLE_EVENT_DATA, SAMPLE_EVENT_ENDED}) {
            ep_hook *hook = &child_hooks_[event != SAMPLE_EVENT_DATA];
            *hook = {nullptr, on_event, event != SAMPLE_EVENT_DATA, 0, 0};
            ep_add_hook(util_, child_, event, hook);
        }
        if (child_->event2_value == SAMPLE_FAILED) {
            note("!failed");
            remove(std::exchange(child_, nullptr));
        }
    }

    static void transmit(zarn_data_t *data, const sample_destination *to) { self_->note_sent(data, to); }

    void note_sent(zarn_data_t *data, const sample_destination *to) {
        std::vector<uint8_t> bytes(data->length);
        util_->copy_from_zarn_data(data, 0, bytes.data(), data->length);
        util_->delete_zarn_data(data);
        std::vector<uint8_t> whole(12 + bytes.size());
        memcpy(&whole[0], device_.address, 4);
        memcpy(&whole[4], to->address, 4);
        whole[9] = 6;
        write(&whole[10], 2, static_cast<uint32_t>(bytes.size()));
        memcpy(&whole[12], bytes.data(), bytes.size());
        EXPECT_EQ(util_->get_zarn_checksum(whole.data(), static_cast<uint32_t>(whole.size()), 0), 0u);
        const uint32_t header = bytes[12] / 16u * 4, sequence = read(&bytes[4], 4), flags = bytes[13];
        const bool later = highest_ != 0 && static_cast<int32_t>(sequence - highest_) > 0;
        if ((flags & kSyn) != 0) first_sent_ = sequence;
        uint32_t start = sequence - first_sent_, length = static_cast<uint32_t>(bytes.size()) - header;
        highest_ = sequence + length + ((flags & (kSyn | kFin)) != 0);
        std::string word = "<";
        for (int i = 0; i < 5; i++)
            if ((flags >> i & 1) != 0 && 1 << i != kPush) word += kFlagNames[i];
        std::ostringstream rest;
        rest << ":" << (sequence != 0 ? start : 0) << "/"
             << ((flags & kAck) != 0 ? read(&bytes[8], 4) - base_ : 0);
        if (length != 0) rest << "+" << length;
        for (uint32_t i = 0; i < length; i++)
            if (bytes[header + i] != byte_at(start + i)) rest << "?", i = length;
        if ((flags & kSyn) != 0 && later) rest << "'";
        if ((flags & kSyn) != 0) rest << "o";
        for (uint32_t at = 20; at < header; at += bytes[at] == 1 ? 1 : bytes[at + 1]) {
            if (bytes[at] == 2) rest << "m" << read(&bytes[at + 2], 2);
            if (bytes[at] == 3) rest << "s" << unsigned{bytes[at + 2]};
            if (bytes[at] == 4) rest << "k";
            for (uint32_t i = at + 2; bytes[at] == 5 && i < at + bytes[at + 1]; i += 8)
                rest << "b" << read(&bytes[i], 4) - base_ << "-" << read(&bytes[i + 4], 4) - base_;
        }
        rest << "w" << read(&bytes[14], 2);
        note(word + rest.str());
    }

    void note(const std::string &word) { trace_.push_back(word); }

    void attend() {
        __atomic_store_n(&attention_, 0, __ATOMIC_SEQ_CST);
        tcp_->host->attend();
        accept();
    }

    zarn_data_t *new_data(const std::vector<uint8_t> &bytes) {
        const auto length = static_cast<uint32_t>(bytes.size());
        zarn_data_t *data = util_->new_zarn_data();
        void *block = util_->zarn_falloc(length);
        if (block != nullptr) memcpy(block, bytes.data(), length);
        if (data != nullptr && block != nullptr &&
            util_->append_zarn_data(data, block, length, util_->zarn_free) == 0)
            return data;
        if (data != nullptr) util_->delete_zarn_data(data);
        util_->zarn_free(block);
        return nullptr;
    }

    void receive(const std::string &word, uint16_t client_port = 4000) {
        uint32_t flags = 0, sequence = 0, acknowledged = 0, length = 0;
        size_t colon = word.find(':');
        for (char c : word.substr(1, colon - 1))
            flags |= 1u << (strchr(kFlagNames, c) - kFlagNames);
        sscanf(word.c_str() + colon, ":%u/%u+%u", &sequence, &acknowledged, &length);
        const uint32_t segment_size = number_behind(word, 'm', 0), scale = number_behind(word, 's', 99);
        std::vector<uint8_t> bytes(20);
        auto add = [&](uint32_t value) {
            bytes.resize(bytes.size() + 4);
            write(&bytes[bytes.size() - 4], 4, value);
        };
        if (segment_size != 0) add(0x02040000 + segment_size);
        if (scale != 99) add(0x01030300 + scale);
        if (word.find('k') != std::string::npos) add(0x01010402);
        const auto blocks = static_cast<uint32_t>(std::count(word.begin(), word.end(), 'b'));
        if (blocks != 0) add(0x01010502 + 8 * blocks);
        for (size_t at = word.find('b'); at != std::string::npos; at = word.find('b', at + 1)) {
            uint32_t start = 0, end = 0;
            sscanf(&word[at], "b%u-%u", &start, &end);
            add(first_sent_ + start);
            add(first_sent_ + end);
        }
        const auto header = static_cast<uint32_t>(bytes.size());
        bytes.resize(header + length);
        write(&bytes[0], 2, client_port);
        write(&bytes[2], 2, number_behind(word, 'p', 7));
        write(&bytes[4], 4, base_ + sequence);
        write(&bytes[8], 4, (flags & kAck) != 0 ? first_sent_ + acknowledged : 0);
        bytes[12] = static_cast<uint8_t>(header / 4 << 4);
        bytes[13] = static_cast<uint8_t>(flags);
        write(&bytes[14], 2, number_behind(word, 'w', 60000));
        for (uint32_t i = 0; i < length; i++)
            bytes[header + i] = word.find('?') != std::string::npos ? 0x5a : byte_at(sequence + i);
        receive(bytes);
        if (word.back() != ',') attend();
    }

    void receive(std::vector<uint8_t> bytes) {
        const sample_network_header network = {{10, 9, 9, 1}, {10, 9, 9, 2}, 6, SAMPLE_ALL,
                                               &below_,       nullptr,       0};
        const auto length = static_cast<uint32_t>(bytes.size());
        uint8_t pseudo[12] = {10, 9, 9, 1, 10, 9, 9, 2, 0, 6};
        write(pseudo + 10, 2, length);
        write(&bytes[16], 2, 0);
        const auto sum = static_cast<uint16_t>(util_->get_zarn_checksum(
            pseudo, 12, static_cast<uint16_t>(util_->get_zarn_checksum(bytes.data(), length, 0))));
        memcpy(&bytes[16], &sum, 2);
        zarn_data_t *data = new_data(bytes);
        if (data == nullptr) return;
        data->user_word_1 = length;
        tcp_->receive(data, &network);
    }

    void wait(int64_t milliseconds) {
        for (; milliseconds > 0; milliseconds -= 50) {
            test_kernel::advance(50'000);
            test_kernel::wait_until_asleep("zarn_timer");
            if (__atomic_load_n(&attention_, __ATOMIC_SEQ_CST) != 0) attend();
        }
    }

    void take() {
        uint32_t length = 0, wrong = 0;
        zarn_data_t *data;
        int32_t status;
        while ((status = tcp_->endpoints->take_bytes(child_, &data)) == 0) {
            std::vector<uint8_t> bytes(data->length);
            util_->copy_from_zarn_data(data, 0, bytes.data(), data->length);
            util_->delete_zarn_data(data);
            for (uint8_t byte : bytes)
                wrong += byte != byte_at(++taken_), length++;
        }
        if (length != 0) note("=" + std::to_string(length) + (wrong != 0 ? "?" + std::to_string(wrong) : ""));
        EXPECT_TRUE(status == ERR_WOULD_BLOCK || status == SAMPLE_NO_MORE);
        if (status == SAMPLE_NO_MORE) note("=end");
    }

    void send(uint32_t length) {
        std::vector<uint8_t> bytes(length);
        for (uint32_t i = 0; i < length; i++)
            bytes[i] = byte_at(queued_ + 1 + i);
        zarn_data_t *data = new_data(bytes);
        if (data == nullptr) return;
        const int32_t status = tcp_->endpoints->send_bytes(child_, data);
        if (status == 0) {
            queued_ += length;
            return;
        }
        note(status == ERR_WOULD_BLOCK ? "=full" : "=gone");
        util_->delete_zarn_data(data);
    }

    void act(const std::string &word) {
        if (word[0] == '>') return receive(word);
        const uint32_t number = number_behind(word, ':', 0);
        if (word == "take") take();
        if (word == "end") tcp_->endpoints->end_sending(child_);
        if (word == "delete") remove(std::exchange(child_, nullptr));
        if (word.starts_with("send")) send(number);
        if (word.starts_with("room")) room_ = number;
        if (word.starts_with("wait")) wait(number);
        if (__atomic_load_n(&attention_, __ATOMIC_SEQ_CST) != 0) attend();
    }

    // Whether the word that has come is the one expected, as far as that tells.
    static bool fits(const std::string &actual, const std::string &expected) {
        const size_t options = actual.find('o'), window = actual.find('w');
        if (actual[0] != '<') return actual == expected;
        const std::string core = actual.substr(0, std::min(options, window));
        return expected == core || expected == core + actual.substr(window) ||
               (options != std::string::npos && expected == core + actual.substr(options, window - options));
    }

    void play(const std::string &script) {
        std::istringstream words(script);
        size_t seen = trace_.size();
        auto no_more = [&](const std::string &before) {
            for (; seen < trace_.size(); seen++)
                ADD_FAILURE() << "not expected: " << trace_[seen] << " before " << before;
        };
        for (std::string word; words >> word;) {
            if (strchr("<=!", word[0]) == nullptr) {
                no_more(word);
                act(word);
                continue;
            }
            for (uint32_t times = number_behind(word, '*', 1); times > 0; times--, seen++) {
                const std::string expected = word.substr(0, word.find('*'));
                if (seen < trace_.size() && fits(trace_[seen], expected)) continue;
                ADD_FAILURE() << "expected " << expected << ", not "
                              << (seen < trace_.size() ? trace_[seen] : "nothing");
                return;
            }
        }
        no_more("the end");
    }

    // Has both sides' numbers begin shortly before they wrap.
    void wrap_numbers() {
        base_ = 0xfffffffau;
        play(">S:0 <SA:0/1 >R:1 !ready !failed");
        test_kernel::set_time(test_kernel::now() + int64_t{4} * (0xfffffff0u - first_sent_));
        highest_ = 0;
    }

    static inline tcp_test *self_;
    const zarn_util_module_t *util_;
    const sample_protocol_module *tcp_;
    void *library_;
    zarn_endpoint_t *listener_, *child_ = nullptr;
    ep_hook hook_, child_hooks_[2];
    std::vector<std::string> trace_;
    uint32_t base_ = 1000, first_sent_ = 0, highest_ = 0, taken_ = 0, queued_ = 0, room_ = 100;
    int32_t attention_ = 0;

    static inline const sample_host_operations kBelowHost = {nullptr,  nullptr, nullptr,
                                                             transmit, nullptr, nullptr};
    static inline const sample_protocol_module below_ = {{{"network/ipv4", SAMPLE_PROTOCOL_FLAGS, nullptr},
                                                          [](proto_node *) { return 0; },
                                                          [](proto_node *) { return 0; }},
                                                         nullptr,
                                                         nullptr,
                                                         nullptr,
                                                         nullptr,
                                                         nullptr,
                                                         &kBelowHost};
    const sample_device device_ = {
        {},
        {10, 9, 9, 2},
        24,
        140,
        {1, 2},
        nullptr,
        [](const sample_device *) { return self_->room_; },
        [](const sample_device *) { __atomic_store_n(&self_->attention_, 1, __ATOMIC_SEQ_CST); },
        [](const sample_device *) { return kern_time_us(); }};
};

const std::string kMade = ">S:0 <SA:0/1 >A:1/1 !ready ", kTelling = ">S:0k <SA:0/1om100k >A:1/1 !ready ",
                  kDistant = ">S:0k <SA:0/1 wait:50 >A:1/1 !ready ",
                  kTenSent = kTelling +
                             "send:1000 <A:1/1+100 <A:101/1+100 <A:201/1+100 <A:301/1+100 <A:401/1+100 "
                             "<A:501/1+100 <A:601/1+100 <A:701/1+100 <A:801/1+100 <A:901/1+100 ";
const struct {
    const char *name;
    std::string script;
} kScripts[] = {
    {"options", ">S:0m70s2kw1000 <SA:0/1om100s3k >A:1/1w25 !ready send:120 <A:1/1+70"},
    {"no options", ">S:0 <SA:0/1om100 >S:0 <SA:0/1om100 >A:1/1 !ready send:120 <A:1/1+100 <A:101/1+20"},
    {"echo", kMade + ">A:1/1+5 !data <A:1/6 take =5 send:5 <A:1/6+5 >A:6/6"},
    {"one acknowledgement for a batch", kMade + ">A:1/1+5, >A:6/1+5, >A:11/1+5 !data <A:1/16 take =15"},
    {"data with the handshake", ">S:0 <SA:0/1 >A:1/1+5 !ready <A:1/6 take =5"},
    {"reordered",
     kMade + ">A:6/1+5 <A:1/1 >A:16/1+5 <A:1/1 >A:1/1+5 <A:1/11 !data >A:11/1+5 !data <A:1/21 take =20"},
    {"overlaps",
     kMade + ">A:4/1+3 <A:1/1 >A:9/1+2 <A:1/1 >A:2/1+14? <A:1/1 >A:1/1+1 !data <A:1/16 take =15?9"},
    {"partly old", kMade + ">A:1/1+5 !data <A:1/6 >A:1/1+5? <A:1/6 >A:3/1+8? !data <A:1/11 take =10?5"},
    {"beyond the window", kMade + ">A:300000/1+5 <A:1/1 take"},
    {"no frames to keep", kMade + "room:0 >A:1/1+5 <A:1/1 room:9 >A:6/1+5 <A:1/1 room:0 >A:1/1+5 <A:1/1 "
                                  "room:9 >A:1/1+5 !data <A:1/6 take =5"},
    {"no more than is left for others",
     kMade + "room:2 >A:1/1+5, >A:6/1+5, >A:11/1+5 !data <A:1/11 take =10 >A:11/1+5 !data <A:1/16 take =5"},
    {"windows grow by segments",
     "room:1 >S:0 <SA:0/1w100 >A:1/1 !ready >A:1/1+60 !data <A:1/61w40 take =60 "
     ">A:61/1+40 !data <A:1/101w0 room:9 take =40 <A:1/101w900"},
    {"closed window", "room:0 >S:0 <SA:0/1w0 >A:1/1 !ready >A:1/1+5 <A:1/1w0 >FA:1/1 !data <A:1/2 take =end"},
    {"time-outs", kMade + "send:5 <A:1/1+5 wait:250 <A:1/1+5 wait:450 <A:1/1+5 >A:1/3 >A:1/6 wait:9000"},
    {"vanished peer",
     kMade + "send:5 <A:1/1+5 wait:110000 <A:1/1+5*8 <RA:6/1 !closed send:5 =gone take =end"},
    {"idle peers",
     kMade + "wait:120100 <A:0/1 >A:1/1 wait:120100 <A:0/1 wait:60000 <A:0/1*5 <RA:1/1 !closed"},
    {"duplicates",
     kMade + "send:500 <A:1/1+100 <A:101/1+100 <A:201/1+100 <A:301/1+100 <A:401/1+100 >A:1/1 >A:1/1 "
             ">A:1/1 <A:1/1+100 >A:1/1 >A:1/201 <A:201/1+100 >A:1/501 wait:9000"},
    {"time-out in flight", kMade +
                               "send:300 <A:1/1+100 <A:101/1+100 <A:201/1+100 wait:250 <A:1/1+100 >A:1/101 "
                               "<A:101/1+100 <A:201/1+100 >A:1/301"},
    {"window of the peer",
     kMade + ">A:1/1w0 send:5 wait:250 <A:0/1 >A:1/1w0 wait:450 <A:0/1 >A:1/1w9 <A:1/1+5"},
    {"closed window for long",
     kMade + ">A:1/1w0 send:5 wait:24000 <A:0/1*6 room:9 wait:26000 <A:0/1 wait:26000 <RA:1/1 !closed"},
    {"silent behind a closed window", kMade + ">A:1/1w0 send:5 wait:200000 <A:0/1*8 <RA:1/1 !closed"},
    {"no slivers", kMade + ">A:1/1w60 send:100 wait:150 wait:100 <A:1/1+60 >A:1/61w300 <A:61/1+40 >A:1/101"},
    {"shrunken window",
     kMade + "send:200 <A:1/1+100 <A:101/1+100 >A:1/101w0 wait:250 <A:101/1+100 >A:1/201w0"},
    {"full queue",
     kMade + ">A:1/1w0 " +
         [] {
             std::string all;
             for (int i = 0; i < 512; i++)
                 all += "send:1 ";
             return all;
         }() +
         "send:1 =full >A:1/1 <A:1/1+100 <A:101/1+100 <A:201/1+100 <A:301/1+100 <A:401/1+100 <A:501/1+12 "
         ">A:1/513 !data send:1 <A:513/1+1"},
    {"resets", kMade + ">R:0 >R:9 <A:1/1 >R:300000 >R:1 !closed >A:1/1 <R:1/0"},
    {"blind syn", kMade + ">S:7 <A:1/1 wait:200 >S:99999999 <A:1/1"},
    {"blind acknowledgement", kMade + "send:5 <A:1/1+5 >A:1/7+5 <A:6/1 take"},
    {"half-open reset", ">S:0 <SA:0/1 >R:1 !ready !failed"},
    {"half-open with a wrong acknowledgement", ">S:0 <SA:0/1 >A:1/9 <R:9/0 >A:1/1 !ready"},
    {"half-open for ever", ">S:0 <SA:0/1 wait:32000 <SA:0/1*4 <RA:1/1 !ready !failed"},
    {"strangers", ">S:0p99 <RA:0/1 >A:5/5p99 <R:5/0 >FP:5/0+3p99 <RA:0/9 >R:5p99 >A:5/5 <R:5/0 >F:5 >R:5"},
    {"closed by the peer",
     kMade + ">FA:1/1+5 !data <A:1/7 take =5 =end end <FA:1/7 >A:7/2 !closed >A:7/2 <R:2/0"},
    {"closed here",
     kMade + "send:5 <A:1/1+5 end <FA:6/1 >A:1/7 >A:1/7+5 !data <A:7/6 take =5 >FA:6/7 !data !closed <A:7/7 "
             "take =end >FA:6/7 <A:7/7 wait:3900 >FA:6/7 <A:7/7 wait:3900 wait:200 >FA:6/7 <R:7/0"},
    {"closed by both", kMade + "end <FA:1/1 >FA:1/1 !data <A:2/2 >A:2/2 !closed take =end"},
    {"fin before its data", kMade + ">FA:6/1 <A:1/1 >A:1/1+5 !data <A:1/7 take =5 =end"},
    {"lost fin", kMade + "end <FA:1/1 wait:250 <FA:1/1 >A:1/2 wait:60100 <RA:2/1 !closed"},
    {"again at once",
     kMade + "end <FA:1/1 >FA:1/2 !data !closed <A:2/2 >S:2 <A:2/2 >S:9 <SA:0/10' >A:10/1 !ready"},
    {"deleted", kMade + ">A:1/1+5 !data <A:1/6 delete <RA:1/6 >A:6/1 <R:1/0"},
    {"tells of runs behind holes",
     kTelling +
         ">A:6/1+5 <A:1/1b6-11 >A:16/1+5 <A:1/1b16-21b6-11 >A:26/1+5 <A:1/1b26-31b16-21b6-11 >A:11/1+5 "
         "<A:1/1b6-21b26-31 >A:36/1+5 <A:1/1b36-41b6-21b26-31 >A:46/1+5 <A:1/1b46-51b36-41b6-21b26-31 "
         ">A:56/1+5 <A:1/1b56-61b46-51b36-41b6-21 >A:1/1+5 <A:1/21b56-61b46-51b36-41b26-31 !data"},
    {"tells what has come twice", kTelling +
                                      ">A:1/1+5 !data <A:1/6 >A:1/1+5 <A:1/6b1-6 >A:11/1+5 <A:1/6b11-16 "
                                      ">A:11/1+3 <A:1/6b11-14b11-16 >A:3/1+8 <A:1/16b3-6 !data"},
    {"fills holes", kTenSent + ">A:1/1b201-301 >A:1/1b201-401 <A:1/1+100 >A:1/1b201-501 >A:1/1b201-601 "
                               ">A:1/1b201-701 <A:101/1+100 >A:1/1001 wait:9000"},
    {"repeats what is lost again",
     kTenSent +
         "send:500 >A:1/1b101-201 <A:1001/1+100 >A:1/1b101-301 <A:1101/1+100 >A:1/1b101-401 <A:1/1+100 "
         ">A:1/1b101-1201 <A:1201/1+100 <A:1301/1+100 <A:1401/1+100 >A:1/1b101-1401 >A:1/1b101-1501 "
         "<A:1/1+100 >A:1/1501 wait:9000"},
    {"learns that segments overtake others",
     kTenSent +
         ">A:1/1b301-401 <A:1/1+100 >A:1/401b1-101 send:2000 <A:1001/1+100 <A:1101/1+100 <A:1201/1+100 "
         "<A:1301/1+100 >A:1/401b701-801 <A:1401/1+100 >A:1/401b701-901 <A:401/1+100 <A:1501/1+100"},
    {"is told lies", kTenSent + ">A:1/1b1-901 >A:1/1b901-301 >A:1/1b501-1101 >A:1/1b0-4000000000b301-301 "
                                ">A:1/1b2-401 <A:1/1+100"},
    {"what was told is taken back",
     kDistant + "send:300 <A:1/1+100 <A:101/1+100 <A:201/1+100 >A:1/1b101-301 wait:200 <A:1/1+100 wait:250 "
                "<A:1/1+100 >A:1/101 <A:101/1+100 <A:201/1+100 >A:1/301 wait:9000"},
    {"lost at the end",
     kDistant + ">A:1/1w0 send:150 end >A:1/1 <A:1/1+100 <FA:101/1+50 wait:200 <A:1/1+100 >A:1/101 "
                "wait:250 <FA:101/1+50 >A:1/152b101-152 wait:9000"},
    {"deleted while it waits",
     kMade + "end <FA:1/1 >FA:1/2 !data !closed <A:2/2 delete >FA:1/2 <A:2/2 wait:4100 >A:2/2 <R:2/0"},
};

TEST_F(tcp_test, answers_as_the_standards_say_wherever_the_numbers_are) {
    for (const bool wraps : {false, true}) {
        for (const auto &[name, script] : kScripts) {
            SCOPED_TRACE(std::string(name) + (wraps ? ", with numbers that wrap" : ""));
            if (wraps) wrap_numbers();
            play(script);
            TearDown();
            base_ = 1000, highest_ = taken_ = queued_ = 0, room_ = 100;
            trace_.clear();
            SetUp();
        }
    }
}

TEST_F(tcp_test, refuses_what_the_backlog_has_no_room_for_until_it_has) {
    sample_counts counts;
    for (uint16_t port : {1, 2, 3, 3})
        receive(">S:0", port);
    EXPECT_EQ(trace_.size(), 2u);
    receive(">R:1", 1);  // failed, dequeued, deleted
    highest_ = 0;
    receive(">S:0", 3);
    EXPECT_TRUE(fits(trace_.back(), "<SA:0/1"));
    tcp_->take_counts(&counts);
    EXPECT_EQ(counts.refused, 2u);
    // Both places are taken again, by peers that don't answer. After a second they make room.
    wait(1100);
    receive(">S:0", 4);
    const size_t before = trace_.size();
    highest_ = 0;
    receive(">S:0", 4);
    ASSERT_GT(trace_.size(), before);
    EXPECT_TRUE(fits(trace_[before], "<SA:0/1"));
}

TEST_F(tcp_test, puts_the_bytes_together_from_any_pieces) {
    std::mt19937 random(1);
    play(kMade);
    for (uint32_t total = 0; total < 20000;) {
        const uint32_t back = random() % 300, length = random() % 100,
                       first = std::max(1u, taken_ + 200 - back);
        receive(">A:" + std::to_string(first) + "/1+" + std::to_string(length) +
                (random() % 3 == 0 ? "," : ""));
        trace_.clear();
        take();
        for (const std::string &word : trace_) {
            EXPECT_EQ(word.find('?'), std::string::npos);
        }
        total = taken_;
    }
}

// Whatever comes, in whatever state: nothing breaks, and nothing is left.
TEST_F(tcp_test, survives_anything_that_arrives) {
    std::mt19937 random(2);
    for (int i = 0; i < 20000; i++) {
        if (child_ == nullptr || random() % 500 == 0) receive(random() % 4 == 0 ? ">S:0" : ">S:0k");
        std::vector<uint8_t> bytes(22 + random() % 120);
        for (uint8_t &byte : bytes)
            byte = static_cast<uint8_t>(random());
        write(&bytes[0], 4, 4000 << 16 | 7);
        write(&bytes[4], 4, base_ + 1 + taken_ + random() % 300 - 100);
        write(&bytes[8], 4,
              random() % 8 == 0 ? static_cast<uint32_t>(random())
                                : highest_ - random() % (random() % 2 == 0 ? 3 : 999));
        bytes[12] = static_cast<uint8_t>((random() % 4 == 0 ? random() : 5) << 4);
        for (size_t at = 22; at + 4 <= bytes.size(); at += 4)
            write(&bytes[at], 4, highest_ - random() % 2000);
        write(&bytes[20], 2, 0x0502 + 8 * (random() % 5));
        bytes[13] =
            static_cast<uint8_t>(random() % 4 == 0 ? random() & (random() % 4 == 0 ? 0xff : 0xf8) : 16u);
        receive(bytes);
        attend();
        room_ = random() % 4 == 0 ? 0 : 50;
        if (child_ == nullptr) continue;
        if (random() % 3 == 0) take();
        if (random() % 3 == 0) send(1 + static_cast<uint32_t>(random() % 300));
        if (random() % 200 == 0) tcp_->endpoints->end_sending(child_);
        if (random() % 100 == 0) remove(std::exchange(child_, nullptr));
        if (random() % 100 == 0) wait(300);
        trace_.clear();
    }
}

TEST_F(tcp_test, loses_nothing_but_segments_without_memory) {
    for (const char *script :
         {"", ">A:6/1+5 >A:4/1+9 >A:1/1+3 take send:250 wait:300 >A:15/101 end wait:500 >FA:15/252"}) {
        for (int call = 1, refusals = 1; refusals != 0; call++) {
            SCOPED_TRACE(call);
            dry_pools none;
            if (*script != 0) play(kMade);
            test_kernel::fail_call(call, test_kernel::kHeap);
            std::istringstream words(*script != 0 ? script : ">S:0 >S:0 >A:1/1");
            for (std::string word; words >> word;)
                if (child_ != nullptr || word[0] == '>') act(word);
            refusals = test_kernel::refusals();
            test_kernel::fail_nothing();
            receive(">R:15");
            remove(std::exchange(child_, nullptr));
            wait(4100);
            highest_ = taken_ = queued_ = 0;
            trace_.clear();
        }
    }
}

}  // namespace
