// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/certificates.h"
#include "tlsoptions.h"
#include "tlsprobe.h"
#include "tlsside.h"

#include <QtTest/QtTest>

#include <algorithm>

namespace {

constexpr int HandshakeTimeoutMs = 24 * 60 * 60 * 1000;

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

//! Something that a device offers by names, and of which the server chooses one.
struct Offer
{
    int version;
    QStringList names;
    // False if this OpenSSL does not know the names.
    std::function<bool(SSL *, const QByteArray &)> set;
    std::function<int(const TlsProbe &)> chosen;
};

int cipherOf(const TlsProbe &probe)
{
    return static_cast<int>(SSL_CIPHER_get_protocol_id(SSL_get_current_cipher(probe.native())));
}

// All ciphers that this OpenSSL has up to TLS 1.2.
QStringList allCiphers()
{
    QStringList names;
    const TlsDevice device(TLS1_2_VERSION);
    SSL_set_cipher_list(device.native(), "ALL:COMPLEMENTOFALL:@SECLEVEL=0");
    const STACK_OF(SSL_CIPHER) *const ciphers = SSL_get_ciphers(device.native());
    for (int n = 0; n < sk_SSL_CIPHER_num(ciphers); ++n) {
        const SSL_CIPHER *const cipher = sk_SSL_CIPHER_value(ciphers, n);
        if (SSL_CIPHER_get_kx_nid(cipher) != NID_kx_any) // TLS 1.3
            names.append(text(SSL_CIPHER_get_name(cipher)));
    }
    return names;
}

Offer ciphers()
{
    return {TLS1_2_VERSION, allCiphers(),
            [](SSL *ssl, const QByteArray &names) {
                return SSL_set_cipher_list(ssl, names + ":@SECLEVEL=0") == 1;
            },
            cipherOf};
}

Offer suites()
{
    return {TLS1_3_VERSION,
            {text("TLS_AES_128_GCM_SHA256"), text("TLS_AES_256_GCM_SHA384"),
             text("TLS_CHACHA20_POLY1305_SHA256"), text("TLS_AES_128_CCM_SHA256"),
             text("TLS_AES_128_CCM_8_SHA256")},
            [](SSL *ssl, const QByteArray &names) { return SSL_set_ciphersuites(ssl, names) == 1; },
            cipherOf};
}

Offer groups(int version)
{
    return {version,
            {text("X25519"), text("X448"), text("P-256"), text("P-384"), text("P-521"),
             text("P-224"), text("P-192"), text("secp256k1"), text("B-571"), text("K-283"),
             text("brainpoolP256r1"), text("brainpoolP384r1"), text("brainpoolP512r1"),
             text("ffdhe2048"), text("ffdhe3072"), text("ffdhe4096")},
            [](SSL *ssl, const QByteArray &names) {
                return tlsoptions::setGroups(ssl, names)
                        && SSL_set_cipher_list(ssl, "ECDHE:@SECLEVEL=0") == 1;
            },
            [](const TlsProbe &probe) { return probe.group; }};
}

Offer signatures(int version)
{
    return {version,
            {text("rsa_pss_rsae_sha256"), text("rsa_pss_rsae_sha384"), text("rsa_pss_rsae_sha512"),
             text("rsa_pss_pss_sha256"), text("rsa_pss_pss_sha512"), text("rsa_pkcs1_sha256"),
             text("rsa_pkcs1_sha384"), text("rsa_pkcs1_sha512"), text("rsa_pkcs1_sha224"),
             text("rsa_pkcs1_sha1"), text("ecdsa_secp256r1_sha256"), text("ecdsa_secp384r1_sha384"),
             text("ed25519"), text("ed448")},
            [](SSL *ssl, const QByteArray &names) {
                return tlsoptions::setSignatures(ssl, names)
                        && SSL_set_cipher_list(ssl, "ECDHE:DHE:@SECLEVEL=0") == 1;
            },
            [](const TlsProbe &probe) { return probe.scheme; }};
}

// Which ones the server takes out of these, until it takes none.
QStringList orderOf(const Offer &offer, quint16 port, QStringList names,
                    const QMap<int, QString> &known)
{
    QStringList order;
    while (!names.isEmpty()) {
        TlsProbe probe(offer.version, offer.version);
        if (!offer.set(probe.native(), names.join(QLatin1Char(':')).toLatin1())
            || !probe.shakeHands(port))
            break;
        const QString chosen = known.value(offer.chosen(probe));
        order.append(chosen);
        if (!names.removeOne(chosen))
            break;
    }
    return order;
}

// What the server says to each of the names alone, then what it prefers, whatever the device does.
QStringList explore(const Offer &offer, quint16 port)
{
    QStringList found;
    QStringList accepted;
    QMap<int, QString> known;
    for (const QString &name : offer.names) {
        TlsProbe probe(offer.version, offer.version);
        if (!offer.set(probe.native(), name.toLatin1())) {
            found.append(name + text(": not known here"));
            continue;
        }
        if (probe.shakeHands(port)) {
            accepted.append(name);
            known.insert(offer.chosen(probe), name);
        }
        found.append(name + text(": ") + probe.answer().join(text("; ")));
    }
    QStringList reversed = accepted;
    std::reverse(reversed.begin(), reversed.end());
    found.append(text("order: ") + orderOf(offer, port, accepted, known).join(QLatin1Char(' ')));
    found.append(text("order of the reverse: ")
                 + orderOf(offer, port, reversed, known).join(QLatin1Char(' ')));
    return found;
}

//! A device with one peculiarity.
struct Peculiar
{
    const char *name;
    int minVersion;
    int maxVersion;
    std::function<void(SSL *)> prepare;
    std::function<void(TlsProbe &)> afterwards = {};
};

void renegotiate(TlsProbe &probe)
{
    SSL_renegotiate(probe.native());
    probe.device.handshake();
    probe.device.flush();
    probe.finish();
}

std::vector<Peculiar> peculiarDevices()
{
    const auto nothing = [](SSL *) {};
    std::vector<Peculiar> all{
            {"TLS 1.0", TLS1_VERSION, TLS1_VERSION, nothing},
            {"TLS 1.1", TLS1_1_VERSION, TLS1_1_VERSION, nothing},
            {"TLS 1.0 to 1.2", TLS1_VERSION, TLS1_2_VERSION, nothing},
            {"TLS 1.2 and 1.3", TLS1_2_VERSION, TLS1_3_VERSION, nothing},
            {"renegotiates", TLS1_2_VERSION, TLS1_2_VERSION, nothing, renegotiate}};
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const auto add = [&](const char *name, const std::function<void(SSL *)> &prepare) {
            all.push_back({name, version, version, prepare});
        };
        add("plain", nothing);
        add("protocols of the application", [](SSL *ssl) {
            SSL_set_alpn_protos(ssl, reinterpret_cast<const uchar *>("\x02h2\x08http/1.1"), 12);
        });
        add("a server's name", [](SSL *ssl) { tlsoptions::nameServer(ssl, "localhost"); });
        add("an unknown server's name",
            [](SSL *ssl) { tlsoptions::nameServer(ssl, "elsewhere.example"); });
        add("status of the certificate",
            [](SSL *ssl) { SSL_set_tlsext_status_type(ssl, TLSEXT_STATUSTYPE_ocsp); });
        add("short fragments", [](SSL *ssl) {
            SSL_set_tlsext_max_fragment_length(ssl, TLSEXT_max_fragment_length_512);
        });
        add("compression", [](SSL *ssl) { SSL_clear_options(ssl, SSL_OP_NO_COMPRESSION); });
        add("no extended master secret",
            [](SSL *ssl) { SSL_set_options(ssl, SSL_OP_NO_EXTENDED_MASTER_SECRET); });
        add("no encrypt-then-mac", [](SSL *ssl) {
            SSL_set_cipher_list(ssl, "AES128-SHA:ECDHE-RSA-AES128-SHA:@SECLEVEL=0");
            SSL_set_options(ssl, SSL_OP_NO_ENCRYPT_THEN_MAC);
        });
        add("encrypt-then-mac", [](SSL *ssl) {
            SSL_set_cipher_list(ssl, "AES128-SHA:ECDHE-RSA-AES128-SHA:@SECLEVEL=0");
        });
        add("no middlebox compatibility",
            [](SSL *ssl) { SSL_clear_options(ssl, SSL_OP_ENABLE_MIDDLEBOX_COMPAT); });
    }
    return all;
}

QStringList showPeculiarities(quint16 port)
{
    QStringList found;
    for (const Peculiar &device : peculiarDevices()) {
        TlsProbe probe(device.minVersion, device.maxVersion);
        device.prepare(probe.native());
        if (probe.shakeHands(port) && device.afterwards)
            device.afterwards(probe);
        found.append(text(device.name) + text(": ") + probe.answer().join(text("; ")));
    }
    return found;
}

// Comes back with the session of an earlier connection.
QStringList comeBack(quint16 port, bool withTickets)
{
    QStringList found;
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        TlsProbe first(version, version);
        TlsProbe second(version, version);
        if (withTickets) {
            SSL_clear_options(first.native(), SSL_OP_NO_TICKET);
            SSL_clear_options(second.native(), SSL_OP_NO_TICKET);
        }
        if (first.shakeHands(port)) {
            first.finish(); // tickets come behind the handshake
            SSL_set_session(second.native(), SSL_get_session(first.native()));
        }
        second.shakeHands(port);
        found.append(text("first: ") + first.answer().join(text("; ")));
        found.append(text("second: ") + second.answer().join(text("; ")));
    }
    return found;
}

// The library sends none with TLS 1.3.
QStringList withoutTickets(QStringList answers)
{
    for (QString &answer : answers)
        answer.remove(text("; ticket"));
    return answers;
}

// Without what else tickets change: their extension, and the session id that takes their place.
QStringList withoutTraceOfTickets(const QStringList &answers)
{
    QStringList all = withoutTickets(answers);
    static const QRegularExpression session(text("session [0-9]+"));
    all.replaceInStrings(text(" 35="), QString());
    all.replaceInStrings(session, text("session"));
    return all;
}

} // namespace

/*!
    What a server offers and chooses, as devices see it: the library with each of its engines beside
    stock Qt.
*/
class tst_TlsOffers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();

    void choosesWhatStockChooses_data();
    void choosesWhatStockChooses();
    void answersAsStockDoes();
    void asksForCertificatesAsStockDoes();
    void resumesAsStockDoes();
    void resumesNothingWithTickets();

private:
    using Look = std::function<QStringList(quint16 port)>;
    static QStringList lookAt(const TlsSide::Kind &kind, const Look &look, bool verifies);
    static void compare(const Look &look, bool verifies = false);
};

void tst_TlsOffers::initTestCase_data()
{
    QTest::addColumn<QString>("tlsVersion");
    for (const char *version : {"", "1.2", "1.2+", "1.3", "1.3+"})
        QTest::addRow("tlsVersion '%s'", version) << text(version);
}

QStringList tst_TlsOffers::lookAt(const TlsSide::Kind &kind, const Look &look, bool verifies)
{
    QFETCH_GLOBAL(QString, tlsVersion);
    QJsonObject tls = serverTls();
    tls.insert(text("verifyPeer"), verifies);
    if (verifies)
        tls.insert(text("CAFile"), certificateFile(text("ca.pem")));
    if (!tlsVersion.isEmpty())
        tls.insert(text("tlsVersion"), tlsVersion);
    const EventLog log;
    TlsSide side(kind, tls, HandshakeTimeoutMs);
    QStringList found;
    if (!play([&] { found = look(side.port); }))
        qFatal("a device hangs");
    return found;
}

void tst_TlsOffers::compare(const Look &look, bool verifies)
{
    const QStringList expected = lookAt(TlsSide::stock(), look, verifies);
    QVERIFY(!expected.isEmpty());
    for (const TlsSide::Kind &kind : TlsSide::library()) {
        const QStringList found = lookAt(kind, look, verifies);
        QCOMPARE(found.size(), expected.size());
        for (qsizetype n = 0; n < found.size(); ++n)
            QVERIFY2(found[n] == expected[n],
                     qPrintable(text("\n  engine %1:\n    %2\n  stock:\n    %3")
                                        .arg(kind.engine, found[n], expected[n])));
    }
}

void tst_TlsOffers::choosesWhatStockChooses_data()
{
    QTest::addColumn<Look>("look");
    const auto add = [](const char *name, const Offer &offer) {
        QTest::newRow(name) << Look([offer](quint16 port) { return explore(offer, port); });
    };
    add("ciphers", ciphers());
    add("cipher suites of TLS 1.3", suites());
    add("groups, TLS 1.2", groups(TLS1_2_VERSION));
    add("groups, TLS 1.3", groups(TLS1_3_VERSION));
    add("signature algorithms, TLS 1.2", signatures(TLS1_2_VERSION));
    add("signature algorithms, TLS 1.3", signatures(TLS1_3_VERSION));
}

void tst_TlsOffers::choosesWhatStockChooses()
{
    QFETCH(Look, look);
    compare(look);
}

void tst_TlsOffers::answersAsStockDoes()
{
    compare(showPeculiarities);
}

// The message that asks for a certificate has all that the server accepts, and its authorities.
void tst_TlsOffers::asksForCertificatesAsStockDoes()
{
    compare(showPeculiarities, true);
}

void tst_TlsOffers::resumesAsStockDoes()
{
    compare([](quint16 port) { return withoutTickets(comeBack(port, false)); });
}

// Whether there are tickets may differ. Nothing else may.
void tst_TlsOffers::resumesNothingWithTickets()
{
    compare([](quint16 port) { return withoutTraceOfTickets(comeBack(port, true)); });
}

QTEST_GUILESS_MAIN(tst_TlsOffers)
#include "tst_tlsoffers.moc"
