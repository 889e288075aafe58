// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/algorithms.h"

#include "ssl/opensslobjects.h"

#include <openssl/ec.h>
#include <openssl/objects.h>

#include <algorithm>

namespace {

constexpr char Separator = ':';

bool setsCiphers(SSL_CTX *context, const QByteArray &list)
{
    return SSL_CTX_set_cipher_list(context, list.constData()) == 1;
}

bool isTls13(const QSslCipher &cipher)
{
    return cipher.protocol() == QSsl::TlsV1_3;
}

// The number by which Qt knows the group; NID_undef if there is none.
int numberOf(const QByteArray &group)
{
    if (group == "secp256r1") // a name that only TLS has for it
        return NID_X9_62_prime256v1;
    const int number = OBJ_sn2nid(group.constData());
    return number != NID_undef ? number : EC_curve_nist2nid(group.constData());
}

bool canBeUsed(int group)
{
    const tls::QuietErrors quiet;
    const tls::Context context(SSL_CTX_new(TLS_server_method()));
    return group != NID_undef && SSL_CTX_set1_groups(context.get(), &group, 1) == 1;
}

} // namespace

bool tls::isCipherList(const QByteArray &list)
{
    const QuietErrors quiet;
    const Context context(SSL_CTX_new(TLS_server_method()));
    return setsCiphers(context.get(), list);
}

// Each name by itself: OpenSSL ignores the unknown ones in a list.
bool tls::areCipherSuites(const QByteArray &list)
{
    const QuietErrors quiet;
    const Context context(SSL_CTX_new(TLS_server_method()));
    const QByteArrayList names = list.split(Separator);
    return std::all_of(names.begin(), names.end(), [&context](const QByteArray &name) {
        return !name.isEmpty() && SSL_CTX_set_ciphersuites(context.get(), name.constData()) == 1;
    });
}

bool tls::areGroups(const QByteArray &list)
{
    const QuietErrors quiet;
    const Context context(SSL_CTX_new(TLS_server_method()));
    QByteArray names = list; // OpenSSL's macro wants a char *
    return !list.split(Separator).contains(QByteArray())
            && SSL_CTX_set1_groups_list(context.get(), names.data()) == 1;
}

QList<QSslCipher> tls::ciphersFrom(const QByteArray &list)
{
    const QuietErrors quiet;
    const Context context(SSL_CTX_new(TLS_server_method()));
    if (!setsCiphers(context.get(), list))
        return {};
    QList<QSslCipher> result;
    const auto *selected = SSL_CTX_get_ciphers(context.get());
    for (int i = 0; i < sk_SSL_CIPHER_num(selected); ++i) {
        const QSslCipher cipher(
                QString::fromLatin1(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(selected, i))));
        if (!cipher.isNull() && !isTls13(cipher))
            result += cipher;
    }
    return result;
}

QList<QSslCipher> tls::cipherSuitesFrom(const QByteArray &list)
{
    QList<QSslCipher> result;
    for (const QByteArray &name : list.split(Separator)) {
        const QSslCipher cipher(QString::fromLatin1(name));
        if (cipher.isNull() || !isTls13(cipher))
            return {};
        result += cipher;
    }
    return result;
}

QList<QSslEllipticCurve> tls::groupsFrom(const QByteArray &list)
{
    QList<QSslEllipticCurve> result;
    for (const QByteArray &name : list.split(Separator)) {
        const int number = numberOf(name);
        if (!canBeUsed(number))
            return {};
        // Qt knows them by OpenSSL's short names alone, and warns of any other name.
        const auto group =
                QSslEllipticCurve::fromShortName(QString::fromLatin1(OBJ_nid2sn(number)));
        if (!group.isValid())
            return {};
        result += group;
    }
    return result;
}
