// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// TLS of our own engine: the first bytes of a handshake, and what follows one. Whatever comes, the
// session takes no byte for a device's that the device has not sent, and none that was changed.

#include "fuzz/fuzztarget.h"
#include "tests/kit/certificatemaker.h"
#include "tests/tls/memoryclient.h"

namespace {

using Step = tls::Session::Step;

std::shared_ptr<const tls::Context> context;

// What the parts of an input do, by their first byte.
enum Deed { Write, ChangeKeys, Spoil, Insert, End, Deeds };

//! A device after its handshake, and what its server gets.
class Connection
{
public:
    explicit Connection(int version) : client(version), session(context)
    {
        require(client.connectTo(session), QStringLiteral("the handshake is done"));
    }

    void write(qsizetype size)
    {
        const QByteArray plain(size, static_cast<char>('a' + written.size() % 26));
        client.write(plain);
        const QByteArray output = client.takeOutput();
        if (!output.isEmpty())
            written += plain;
        send(output);
    }
    void changeKeys()
    {
        SSL_key_update(client.handle(), SSL_KEY_UPDATE_REQUESTED); // refused with TLS 1.2
        client.handshake();
        send(client.takeOutput());
    }
    void end()
    {
        SSL_shutdown(client.handle());
        send(client.takeOutput());
    }
    // at: which byte of the next output.
    void spoil(qsizetype at)
    {
        client.write("spoilt");
        QByteArray output = client.takeOutput();
        if (output.isEmpty()) // it has been told that the connection is broken
            return;
        char &byte = output[at % output.size()];
        byte = static_cast<char>(byte ^ 0x20);
        spoilt = true;
        send(output);
    }
    void insert(QByteArrayView bytes)
    {
        spoilt = true;
        send(bytes.toByteArray());
    }
    void check() const
    {
        require(written.startsWith(received), QStringLiteral("only what was sent"));
        require(spoilt || received == written || session.isClosed(),
                QStringLiteral("all that was sent"));
        require(spoilt || !session.isBroken(), QStringLiteral("good records are good"));
    }

private:
    void send(const QByteArray &bytes)
    {
        session.feed(bytes);
        QByteArray part(100, Qt::Uninitialized);
        while (!session.isClosed() && !session.isBroken()) {
            const qsizetype size = session.read(part.data(), part.size());
            received.append(part.constData(), size);
            if (size == 0 && !session.hasRest())
                break;
        }
        session.keepRest();
        client.answer(session);
        client.read();
    }

    MemoryClient client;
    tls::Session session;
    QByteArray written;
    QByteArray received;
    bool spoilt = false;
};

// A handshake that gets these bytes, in pieces of at most so many.
void begin(QByteArrayView bytes, qsizetype most)
{
    tls::Session session(context);
    Step step = Step::Unfinished;
    while (step == Step::Unfinished && !bytes.isEmpty()) {
        const qsizetype size = std::min(most, bytes.size());
        const QByteArray piece = bytes.first(size).toByteArray();
        bytes = bytes.sliced(size);
        session.feed(piece);
        step = session.handshake();
        session.keepRest();
    }
    require(step != Step::Done, QStringLiteral("nobody guesses a handshake"));
    if (step == Step::Failed)
        require(!session.takeReport().failure.isEmpty(), QStringLiteral("a failure has a reason"));
}

void goOn(QByteArrayView deeds, int version)
{
    Connection connection(version);
    while (deeds.size() >= 2) {
        const auto number = static_cast<unsigned char>(deeds[1]);
        const auto deed = static_cast<unsigned char>(deeds[0]) % Deeds;
        deeds = deeds.sliced(2);
        switch (deed) {
        case Write:
            connection.write(1 + number * 70);
            break;
        case ChangeKeys:
            connection.changeKeys();
            break;
        case Spoil:
            connection.spoil(number);
            break;
        case Insert: {
            const qsizetype size = std::min<qsizetype>(number, deeds.size());
            connection.insert(deeds.first(size));
            deeds = deeds.sliced(size);
            break;
        }
        default:
            return connection.end();
        }
        connection.check();
    }
}

} // namespace

void initialise()
{
    const made::Key key = made::ecKey();
    const made::Certificate certificate = made::certificate("localhost", key, {key, nullptr});
    tls::Settings settings;
    settings.base = QSslConfiguration::defaultConfiguration();
    settings.base.setLocalCertificate(QSslCertificate(made::pem(certificate), QSsl::Pem));
    settings.base.setPrivateKey(QSslKey(made::traditional(key), QSsl::Ec));
    settings.base.setPeerVerifyMode(QSslSocket::VerifyNone);
    context = std::make_shared<const tls::Context>(settings);
    require(context->failure().isEmpty(), context->failure());
}

void fuzz(QByteArrayView input)
{
    if (input.isEmpty())
        return;
    const auto how = static_cast<unsigned char>(input[0]);
    const QByteArrayView rest = input.sliced(1);
    if (how < 128)
        begin(rest, how == 0 ? 1 : how * 16);
    else
        goOn(rest, how % 2 == 0 ? TLS1_2_VERSION : TLS1_3_VERSION);
}
