// SPDX-License-Identifier: MIT
//
// The road of a packet and of a connection, from the start of the module to its stop, as the other layers see
// it: through the table alone. Two protocols of the test stand for all others. A frame is a checksum, a letter
// for the protocol above, one for what the peer wants (S to begin, A to have begun, D for data), and the data.

#include <zarn/zarn_endpoint_hooks.h>

#include <cstring>

#include "module/zarn_util.h"
#include "tests/support/fixture.h"

extern "C" const void *const modules[];

namespace {

enum { kFamily = 2, kOut = 1, kStream = 'T', kDatalink = 0x800, kQueueBytes = 10 };

const zarn_util_module_t *gUtil;

struct road_protocol {
    protocol_module module;
    int32_t (*receive)(zarn_data_t *data);  // takes the buffer; the status of what was done with it
};

// The network protocol keeps nothing for an endpoint.
int32_t keep_nothing(proto_node *) {
    return 0;
}

int32_t receive_network(zarn_data_t *data) {
    void *header, *above;
    int32_t status = ERR_BAD_VALUE;
    if (gUtil->get_zarn_data_checksum(data, 0, data->length) == 0 &&
        gUtil->map_to_zarn_data(data, 2, &header, 1) == 0)
        status = gUtil->get_inbound_proto(kFamily, *static_cast<char *>(header), &above);
    if (status == 0) status = gUtil->trim_zarn_data(data, 0, 3);
    if (status == 0) return static_cast<road_protocol *>(above)->receive(data);
    gUtil->delete_zarn_data(data);
    return status;
}

// The stream protocol knows one listener, and of its connections the latest.
zarn_endpoint_t *gListener, *gConnection;

int32_t open_queue(proto_node *node) {
    auto *queue = static_cast<zarn_fifo_t *>(gUtil->zarn_malloc(sizeof(zarn_fifo_t)));
    node->data = reinterpret_cast<uintptr_t>(queue);
    return gUtil->create_zarn_fifo(queue, "stream", kQueueBytes);
}

int32_t close_queue(proto_node *node) {
    auto *queue = reinterpret_cast<zarn_fifo_t *>(node->data);
    gUtil->delete_zarn_fifo(queue);
    gUtil->zarn_free(queue);
    return 0;
}

zarn_fifo_t *queue_of(const zarn_endpoint_t *endpoint) {
    return reinterpret_cast<zarn_fifo_t *>(endpoint->protocols->data);
}

int32_t receive_stream(zarn_data_t *data) {
    char wish;
    gUtil->copy_from_zarn_data(data, 0, &wish, 1);
    gUtil->trim_zarn_data(data, 0, 1);
    int32_t status = 0;
    if (wish == 'D') {
        status = gUtil->enqueue_zarn_fifo_data(queue_of(gConnection), data);
        if (status == 0) return 0;
    } else if (wish == 'A') {
        gUtil->ep_ready_endpoint(gConnection);
    } else if (zarn_endpoint_t *child = gUtil->ep_spawn_endpoint(gListener)) {
        gConnection = child;
    } else {
        status = ERR_NO_BUFFER_SPACE;
    }
    gUtil->delete_zarn_data(data);
    return status;
}

road_protocol gNetwork = {{{"network/net", 0, nullptr}, keep_nothing, keep_nothing}, receive_network};
road_protocol gStream = {{{"network/stream", 0, nullptr}, open_queue, close_queue}, receive_stream};

// The driver: frames lie in its own memory, and it gets each of them back.
int gFramesOut;

void give_frame_back(void *frame) {
    gFramesOut--;
    delete[] static_cast<char *>(frame);
}

zarn_data_t *wrap(const std::string &text) {
    const auto length = static_cast<uint32_t>(2 + text.size());
    char *frame = new char[length]();
    memcpy(frame + 2, text.data(), text.size());
    const auto sum = static_cast<uint16_t>(gUtil->get_zarn_checksum(frame, length, 0));
    memcpy(frame, &sum, sizeof sum);
    zarn_data_t *data = gUtil->new_zarn_data();
    EXPECT_EQ(gUtil->append_zarn_data(data, frame, length, give_frame_back), 0);
    gFramesOut++;
    return data;
}

void count_ready(zarn_endpoint_t *listener, uint32_t value, uintptr_t count, uintptr_t) {
    EXPECT_EQ(listener->ready_head, gConnection);
    *reinterpret_cast<uint32_t *>(count) += value;
}

std::string text_of(zarn_data_t *data) {
    std::string text(data->length, '\0');
    EXPECT_EQ(gUtil->copy_from_zarn_data(data, 0, text.data(), data->length), data->length);
    return text;
}

TEST_F(kernel_test, TheRoadOfAPacketAndOfAConnection) {
    // The settings name the stacks, the kernel has the modules, and the loader starts ours.
    test_kernel::provide_settings("zarn.conf",
                                  "domains {\n2 {\nin {\n84 stream\n}\nout {\n1 {\n6 stream net\n}\n}\n"
                                  "dl {\n800 {\n0 net\n}\n}\n}\n}");
    test_kernel::provide_module("network/net", &gNetwork);
    test_kernel::provide_module("network/stream", &gStream);
    ASSERT_EQ(std_ops(MODULE_START), 0);
    gUtil = static_cast<const zarn_util_module_t *>(modules[0]);
    gUtil->_enter_prof_func("road", "to nowhere", PROF_RECORD);  // closed by nobody

    // Whoever receives frames asks for the stack of their type: with that the family is loaded and held.
    void **wire;
    int32_t count;
    ASSERT_EQ(gUtil->get_outbound_protos(1, kFamily, kDatalink, 0, &wire, &count), 0);
    ASSERT_TRUE(count == 1 && wire[0] == &gNetwork);
    const auto receive = [&](const std::string &frame) { return gNetwork.receive(wrap(frame)); };

    // A client listens for one connection; its chain is that of the settings, the top first.
    ASSERT_EQ(gUtil->ep_new_endpoint(&gListener, kFamily, kOut, 6), 0);
    EXPECT_EQ(gListener->top_module, &gStream.module);
    EXPECT_EQ(gListener->protocols->next->module, &gNetwork.module);
    EXPECT_EQ(gUtil->ep_set_backlog(gListener, 1), 0);
    uint32_t ready = 0;
    ep_hook hook = {nullptr, count_ready, reinterpret_cast<uintptr_t>(&ready), 0, 0};
    EXPECT_EQ(ep_add_hook(gUtil, gListener, EP_EVENT_READY, &hook), 0);

    // A peer connects. A second one finds no room, and a frame with a flipped bit or for nobody gets nowhere.
    EXPECT_EQ(receive("TS"), 0);
    EXPECT_EQ(receive("TS"), ERR_NO_BUFFER_SPACE);
    EXPECT_EQ(receive("US"), ERR_NO_STACK);
    zarn_data_t *flipped = wrap("TA");
    static_cast<char *>(flipped->datalist->base)[3] ^= 1;
    EXPECT_EQ(gNetwork.receive(flipped), ERR_BAD_VALUE);
    EXPECT_TRUE(ready == 0 && gUtil->ep_dequeue_endpoint(gListener) == nullptr);
    EXPECT_EQ(receive("TA"), 0);
    EXPECT_EQ(ready, 1u);
    zarn_endpoint_t *connection = gUtil->ep_dequeue_endpoint(gListener);
    ASSERT_EQ(connection, gConnection);
    EXPECT_EQ(gFramesOut, 0);

    // Its data wait in its queue, in the driver's memory, until the queue is full.
    EXPECT_EQ(receive("TDhello "), 0);
    EXPECT_EQ(receive("TDyou"), 0);
    EXPECT_EQ(receive("TD, there"), ERR_NO_BUFFER_SPACE);
    EXPECT_EQ(gFramesOut, 2);

    // The client looks before it reads: the look shares the frame, and the frame lives as long as either.
    zarn_data_t *look, *first, *second;
    EXPECT_EQ(gUtil->dequeue_zarn_fifo_data(queue_of(connection), &look, 0, 1), 6);
    EXPECT_EQ(gUtil->dequeue_zarn_fifo_data(queue_of(connection), &first, 0, 0), 6);
    EXPECT_EQ(gUtil->dequeue_zarn_fifo_data(queue_of(connection), &second, 0, 0), 3);
    gUtil->delete_zarn_data(first);
    EXPECT_EQ(gFramesOut, 2);
    EXPECT_EQ(text_of(look) + text_of(second), "hello you");
    gUtil->delete_zarn_data(look);
    EXPECT_EQ(gFramesOut, 1);

    // The other frame is done with at interrupt level, where nothing of the driver's may run.
    {
        test_kernel::wait_until_blocked("zarn_data purgatory");
        test_kernel::interrupt_level here;
        gUtil->isafe_delete_zarn_data(second);
    }
    EXPECT_EQ(gFramesOut, 1);

    // The connection goes, and with it what nobody has read. Listener and receiver still hold the family.
    EXPECT_EQ(receive("TDbye"), 0);
    gUtil->ep_delete_endpoint(connection);
    EXPECT_EQ(gUtil->release_family_ref(kFamily), 0);
    EXPECT_EQ(gFramesOut, 1);
    EXPECT_EQ(std_ops(MODULE_STOP), -1);
    EXPECT_FALSE(test_kernel::has_debug_command("zarn_data"));
    EXPECT_TRUE(test_kernel::has_debug_command("prof_real"));

    // The refused stop has left all else in service: another peer connects, and goes with the listener.
    EXPECT_EQ(receive("TS"), 0);
    EXPECT_EQ(receive("TDunread"), 0);
    EXPECT_EQ(gFramesOut, 2);
    EXPECT_EQ(ep_remove_hook(gUtil, gListener, EP_EVENT_READY, &hook), 0);
    gUtil->ep_delete_endpoint(gListener);
    EXPECT_EQ(gUtil->release_family_ref(kFamily), 0);
    EXPECT_EQ(test_kernel::module_references("network/stream"), 2) << "of the out and the in stack";
    EXPECT_EQ(gUtil->release_family_ref(kFamily), 0);
    EXPECT_EQ(test_kernel::module_references("network/stream"), 0);

    // Nothing holds the module any more. Its stop waits for the threads, and the last frame comes home.
    EXPECT_EQ(gFramesOut, 1);
    test_kernel::running_clock clock;
    EXPECT_EQ(std_ops(MODULE_STOP), 0);
    EXPECT_EQ(gFramesOut, 0);
    gMP = {};
}

}  // namespace
