// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// Shows what inputhost --output nats://... has put into a stream of JetStream, and what comes: all
// messages in their order, or those of one device. A line for each has its subject, the
// connection's number, the message's position and its bytes. It ends by SIGINT.
//
// Arguments: the server, as nats://HOST:PORT, the stream and, to see a part of it, a subject. With
// inputhost's option --nats-subject field.{peer}.{connection}, all of the device at 192.0.2.1:
//
//   consume-nats nats://localhost:4222 DEVICES 'field.192%2E0%2E2%2E1.*'

#include <nats/nats.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

template<auto free>
struct Free
{
    template<class T>
    void operator()(T *object) const
    {
        free(object);
    }
};
using Connection = std::unique_ptr<natsConnection, Free<natsConnection_Destroy>>;
using Context = std::unique_ptr<jsCtx, Free<jsCtx_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Free<natsSubscription_Destroy>>;
using Message = std::unique_ptr<natsMsg, Free<natsMsg_Destroy>>;

void check(natsStatus status, const char *what)
{
    if (status == NATS_OK)
        return;
    const char *text = nats_GetLastError(nullptr);
    std::fprintf(stderr, "%s: %s\n", what, text && *text ? text : natsStatus_GetText(status));
    std::exit(1);
}

const char *header(const Message &message, const char *name)
{
    const char *value = nullptr;
    return natsMsgHeader_Get(message.get(), name, &value) == NATS_OK ? value : "-";
}

void show(const Message &message)
{
    std::printf("%s connection %s of %.8s at %s: ", natsMsg_GetSubject(message.get()),
                header(message, "Input-Connection"), header(message, "Input-Epoch"),
                header(message, "Input-Position"));
    std::fwrite(natsMsg_GetData(message.get()), 1,
                static_cast<size_t>(natsMsg_GetDataLength(message.get())), stdout);
    std::putchar('\n');
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3 || argc > 4) {
        std::fprintf(stderr, "usage: consume-nats SERVER STREAM [SUBJECT]\n");
        return 2;
    }
    natsConnection *connection = nullptr;
    check(natsConnection_ConnectTo(&connection, argv[1]), argv[1]);
    const Connection ownedConnection(connection);
    jsCtx *context = nullptr;
    check(natsConnection_JetStream(&context, connection, nullptr), argv[1]);
    const Context ownedContext(context);

    // "Ordered": the library makes a new consumer where the old one has missed a message.
    jsSubOptions options;
    check(jsSubOptions_Init(&options), argv[2]);
    options.Stream = argv[2];
    options.Ordered = true;
    natsSubscription *subscription = nullptr;
    check(js_SubscribeSync(&subscription, context, argc > 3 ? argv[3] : ">", nullptr, &options,
                           nullptr),
          argv[2]);
    const Subscription ownedSubscription(subscription);

    for (;;) {
        natsMsg *message = nullptr;
        const natsStatus status = natsSubscription_NextMsg(&message, subscription, 1000);
        if (status == NATS_TIMEOUT)
            continue;
        check(status, argv[2]);
        show(Message(message));
    }
}
