// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "handshakepeers.h"

#include "tests/kit/certificates.h"
#include "tlsoptions.h"

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

namespace handshakepeers {

namespace {

template<auto function>
struct Free
{
    template<class T>
    void operator()(T *object) const
    {
        function(object);
    }
};
using Certificate = std::unique_ptr<X509, Free<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

Certificate certificateOf(const char *name)
{
    const QByteArray pem = certificateText(text(name) + text(".pem")).toLatin1();
    BIO *const memory = BIO_new_mem_buf(pem.constData(), int(pem.size()));
    Certificate certificate(PEM_read_bio_X509(memory, nullptr, nullptr, nullptr));
    BIO_free(memory);
    return certificate;
}

Key keyOf(const char *name)
{
    const QByteArray pem = certificateText(text(name) + text(".key")).toLatin1();
    BIO *const memory = BIO_new_mem_buf(pem.constData(), int(pem.size()));
    Key key(PEM_read_bio_PrivateKey(memory, nullptr, nullptr, nullptr));
    BIO_free(memory);
    return key;
}

void use(TlsDevice &device, X509 *certificate, EVP_PKEY *key)
{
    if (SSL_use_certificate(device.native(), certificate) != 1
        || SSL_use_PrivateKey(device.native(), key) != 1)
        qFatal("the certificate cannot be used");
}

// The good client's certificate, but not valid before tomorrow.
Certificate earlyCertificate()
{
    constexpr long Day = 24 * 60 * 60;
    Certificate certificate(X509_dup(certificateOf("client").get()));
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), Day);
    X509_sign(certificate.get(), keyOf("ca").get(), EVP_sha256());
    return certificate;
}

// Both ends have no more to say.
void finish(const Peer &peer)
{
    peer.device.flush();
    peer.device.socket.finish();
    peer.device.readToEnd();
}

// Plays the handshake as far as the server lets it.
void shakeHands(Peer &peer)
{
    peer.device.handshake();
    peer.device.flush(); // the last flight, or an alert
    finish(peer);
}

void say(Peer &peer, const QByteArray &bytes)
{
    peer.device.socket.send(bytes);
    finish(peer);
}

Cause saying(const char *name, const QByteArray &bytes)
{
    Cause cause{name, [bytes](Peer &peer) { say(peer, bytes); }};
    cause.dependsOnVersion = false;
    return cause;
}

Cause shaking(const char *name, const std::function<void(TlsDevice &)> &prepare,
              const QJsonObject &server = {})
{
    return {name,
            [prepare](Peer &peer) {
                prepare(peer.device);
                shakeHands(peer);
            },
            server};
}

QByteArray halfOf(const QByteArray &bytes)
{
    return bytes.first(bytes.size() / 2);
}

// Sends what the function makes of the answer to the server's first flight.
Cause answering(const char *name, const std::function<QByteArray(const QByteArray &)> &change)
{
    return {name, [change](Peer &peer) {
                if (!peer.device.handshakeUntilAnswer())
                    qFatal("no answer from the server");
                say(peer, change(peer.device.takeOutput()));
            }};
}

const QByteArray Alert("\x15\x03\x03\x00\x02", 5); // header of an unencrypted alert's record

void addSilentOnes(std::vector<Cause> &all)
{
    Cause silent{"says nothing", [](Peer &peer) { peer.device.readToEnd(); }};
    silent.timesOut = true;
    silent.dependsOnVersion = false;
    all.push_back(silent);
    Cause half{"half a hello, then nothing", [](Peer &peer) {
                   peer.device.socket.send(halfOf(peer.device.takeHello()));
                   peer.device.readToEnd();
               }};
    half.timesOut = true;
    all.push_back(half);
    Cause answered{"nothing after the server's answer", [](Peer &peer) {
                       peer.device.handshakeUntilAnswer();
                       peer.device.readToEnd();
                   }};
    answered.timesOut = true;
    all.push_back(answered);
}

void addEarlyEnds(std::vector<Cause> &all)
{
    const auto addBoth = [&all](const char *name, const char *nameAtOnce,
                                const std::function<void(Peer &)> &before, bool dependsOnVersion) {
        const bool resets = QByteArray(name).contains("reset");
        Cause later{name, [before, resets](Peer &peer) {
                        before(peer);
                        peer.fence();
                        if (resets)
                            peer.device.socket.reset();
                        else
                            finish(peer);
                    }};
        later.dependsOnVersion = dependsOnVersion;
        Cause atOnce{nameAtOnce, [before, resets](Peer &peer) {
                         before(peer);
                         if (resets)
                             peer.device.socket.reset();
                         else
                             peer.device.socket.close();
                     }};
        atOnce.dependsOnVersion = dependsOnVersion;
        atOnce.beforeServerLooks = true;
        all.push_back(later);
        all.push_back(atOnce);
    };
    const auto nothing = [](Peer &) {};
    const auto half = [](Peer &peer) { peer.device.socket.send(halfOf(peer.device.takeHello())); };
    const auto hello = [](Peer &peer) { peer.device.socket.send(peer.device.takeHello()); };
    addBoth("closed before its hello", "closed at once", nothing, false);
    addBoth("reset before its hello", "reset at once", nothing, false);
    addBoth("closed in its hello", "closed at once in its hello", half, true);
    addBoth("reset in its hello", "reset at once in its hello", half, true);
    addBoth("closed after its hello", "closed at once after its hello", hello, true);
    addBoth("reset after its hello", "reset at once after its hello", hello, true);
}

void addOnesThatAreNoHello(std::vector<Cause> &all)
{
    all.push_back(saying("text", "GET / HTTP/1.0\r\n\r\n"));
    all.push_back(saying("an alert", Alert + QByteArray("\x02\x28", 2)));
    all.push_back(saying("one byte of a hello", QByteArray("\x16", 1)));
    all.push_back(saying("a record with junk", QByteArray("\x16\x03\x01\x00\x05hello", 10)));
    all.push_back(saying("an empty record", QByteArray("\x16\x03\x01\x00\x00", 5)));
    all.push_back(saying("a record of an unknown version",
                         QByteArray("\x16\x09\x09\x00\x04\x01\x00\x00\x00", 9)));
    all.push_back(saying("a record that is too long", QByteArray("\x16\x03\x01\xff\xff\x01", 6)));
    all.push_back(
            saying("a server's hello", QByteArray("\x16\x03\x01\x00\x04\x02\x00\x00\x00", 9)));
    all.push_back(saying("an empty hello", QByteArray("\x16\x03\x01\x00\x04\x01\x00\x00\x00", 9)));
    all.push_back({"a hello, then text", [](Peer &peer) {
                       say(peer, peer.device.takeHello() + QByteArray("GET / HTTP/1.0\r\n\r\n"));
                   }});
    all.push_back({"a hello with another length", [](Peer &peer) {
                       QByteArray hello = peer.device.takeHello();
                       hello[8] = char(hello[8] - 1); // the last byte of the message's length
                       say(peer, hello);
                   }});
}

void addVersions(std::vector<Cause> &all, int version)
{
    const auto nothing = [](TlsDevice &) {};
    const char *const only = version == TLS1_2_VERSION ? "1.3" : "1.2";
    all.push_back(shaking("the server's version is another one", nothing,
                          {{text("tlsVersion"), text(only)}}));
    const auto old = [](TlsDevice &device) {
        SSL_set_security_level(device.native(), 0);
        SSL_set_min_proto_version(device.native(), TLS1_1_VERSION);
        SSL_set_max_proto_version(device.native(), TLS1_1_VERSION);
    };
    all.push_back(shaking("TLS 1.1", old));
    all.push_back(shaking("TLS 1.1, the server has 1.3", old, {{text("tlsVersion"), text("1.3")}}));
}

void addOffers(std::vector<Cause> &all)
{
    all.push_back(shaking("no shared cipher", [](TlsDevice &device) {
        SSL_set_cipher_list(device.native(), "ECDHE-ECDSA-AES128-GCM-SHA256");
        SSL_set_ciphersuites(device.native(), "TLS_AES_128_CCM_SHA256");
    }));
    all.push_back(shaking("unusual groups", [](TlsDevice &device) {
        SSL_set_cipher_list(device.native(), "ECDHE-RSA-AES128-GCM-SHA256");
        tlsoptions::setGroups(device.native(), "brainpoolP256r1:ffdhe8192");
    }));
    all.push_back(shaking("no shared signature algorithm", [](TlsDevice &device) {
        tlsoptions::setSignatures(device.native(), "ECDSA+SHA256");
    }));
}

void addClientCertificates(std::vector<Cause> &all)
{
    all.push_back(shaking("no certificate", [](TlsDevice &) {}));
    for (const char *name : {"client", "client-foreign", "client-expired", "self-signed", "server",
                             "ca", "foreign-ca"}) {
        all.push_back(shaking(name, [name](TlsDevice &device) {
            use(device, certificateOf(name).get(), keyOf(name).get());
        }));
    }
    all.push_back(shaking("a certificate that is not yet valid", [](TlsDevice &device) {
        use(device, earlyCertificate().get(), keyOf("client").get());
    }));
    all.push_back(shaking("a certificate for a server without CA",
                          [](TlsDevice &device) {
                              use(device, certificateOf("client").get(), keyOf("client").get());
                          },
                          {{text("CAFile"), QJsonValue()}}));
}

void addServers(std::vector<Cause> &all)
{
    const auto nothing = [](TlsDevice &) {};
    const auto file = [](const char *name) { return QJsonValue(certificateFile(text(name))); };
    all.push_back(shaking("the server has another certificate's key", nothing,
                          {{text("KeyFile"), file("ca.key")}}));
    all.push_back(shaking("the server has no key", nothing, {{text("KeyFile"), QJsonValue()}}));
    all.push_back(
            shaking("the server has no certificate", nothing, {{text("CertFile"), QJsonValue()}}));
    all.push_back(shaking("the server has neither", nothing,
                          {{text("CertFile"), QJsonValue()}, {text("KeyFile"), QJsonValue()}}));
    all.push_back(shaking("the server has a key of another kind", nothing,
                          {{text("CertFile"), file("ec.pem")}, {text("KeyFile"), file("ec.key")}}));
    const auto verify = [](TlsDevice &device) {
        X509_STORE_add_cert(SSL_CTX_get_cert_store(SSL_get_SSL_CTX(device.native())),
                            certificateOf("ca").get());
        SSL_set_verify(device.native(), SSL_VERIFY_PEER, nullptr);
    };
    all.push_back(shaking("accepts the server's certificate", verify));
    all.push_back(shaking("refuses an expired server", verify,
                          {{text("CertFile"), file("server-expired.pem")},
                           {text("KeyFile"), file("server-expired.key")}}));
    all.push_back(shaking("refuses an unknown authority", [](TlsDevice &device) {
        SSL_set_verify(device.native(), SSL_VERIFY_PEER, nullptr);
    }));
}

void addAnswers(std::vector<Cause> &all)
{
    all.push_back(answering("closed after the server's answer",
                            [](const QByteArray &) { return QByteArray(); }));
    all.push_back({"reset after the server's answer", [](Peer &peer) {
                       peer.device.handshakeUntilAnswer();
                       peer.device.socket.reset();
                   }});
    all.push_back(answering("closed in its answer", halfOf));
    all.push_back({"reset in its answer", [](Peer &peer) {
                       peer.device.handshakeUntilAnswer();
                       peer.device.socket.send(halfOf(peer.device.takeOutput()));
                       peer.fence();
                       peer.device.socket.reset();
                   }});
    all.push_back(answering("a damaged answer", [](QByteArray answer) {
        answer.back() = char(answer.back() ^ 1);
        return answer;
    }));
    all.push_back(answering("text for an answer",
                            [](const QByteArray &) { return QByteArray("GET / \r\n"); }));
    all.push_back(answering("junk for an answer", [](const QByteArray &) {
        return QByteArray("\x17\x03\x03\x00\x20", 5) + QByteArray(32, 'x');
    }));
    all.push_back(answering("an alert for an answer", [](const QByteArray &) {
        return Alert + QByteArray("\x02\x28", 2); // fatal: handshake failure
    }));
    all.push_back(answering("a close_notify for an answer",
                            [](const QByteArray &) { return Alert + QByteArray("\x01\x00", 2); }));
}

} // namespace

std::vector<Cause> causes(int version)
{
    std::vector<Cause> all;
    addSilentOnes(all);
    addEarlyEnds(all);
    addOnesThatAreNoHello(all);
    addVersions(all, version);
    addOffers(all);
    addClientCertificates(all);
    addServers(all);
    addAnswers(all);
    return all;
}

} // namespace handshakepeers
