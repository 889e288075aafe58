// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/tlschannel.h"

#include "simulator/tcpsocket.h"

#include <cerrno>
#include <limits>
#include <openssl/err.h>

namespace simulator {
namespace {

constexpr int DropBytes = 16 * 1024; // read at once, to be dropped

} // namespace

// ERR_clear_error() comes before each call: SSL_get_error() looks at the thread's error queue,
// where another connection may have left something.

IoResult TlsChannel::handshake()
{
    if (!ssl)
        return {IoResult::Failed, 0, QStringLiteral("no memory for a TLS connection")};
    ERR_clear_error();
    IoResult result = resultOf(SSL_do_handshake(ssl.get()));
    const long verified = SSL_get_verify_result(ssl.get());
    if (result.status != IoResult::Failed || verified == X509_V_OK
        || SSL_get_verify_mode(ssl.get()) == SSL_VERIFY_NONE)
        return result;
    return {IoResult::Failed, 0,
            QStringLiteral("the server's certificate is not trusted: %1")
                    .arg(QString::fromLatin1(X509_verify_cert_error_string(verified)))};
}

IoResult TlsChannel::send(QByteArrayView data)
{
    ERR_clear_error();
    const qsizetype atMost = std::numeric_limits<int>::max();
    return resultOf(SSL_write(ssl.get(), data.data(), static_cast<int>(qMin(data.size(), atMost))));
}

IoResult TlsChannel::receive()
{
    char dropped[DropBytes];
    IoResult result;
    do {
        ERR_clear_error();
        result = resultOf(SSL_read(ssl.get(), dropped, DropBytes));
    } while (result.status == IoResult::Done);
    return result;
}

IoResult TlsChannel::sendEnd()
{
    ERR_clear_error();
    const int returned = SSL_shutdown(ssl.get());
    // 0: our close_notify is sent, and the peer's has not come yet.
    return returned >= 0 ? IoResult{} : resultOf(returned);
}

// returned: by the SSL function just called.
IoResult TlsChannel::resultOf(int returned) const
{
    const int systemError = errno;
    switch (SSL_get_error(ssl.get(), returned)) {
    case SSL_ERROR_NONE:
        return {IoResult::Done, returned, {}};
    case SSL_ERROR_WANT_READ:
        return {IoResult::WantRead, 0, {}};
    case SSL_ERROR_WANT_WRITE:
        return {IoResult::WantWrite, 0, {}};
    case SSL_ERROR_ZERO_RETURN:
        return {IoResult::Closed, 0, {}};
    case SSL_ERROR_SYSCALL:
        return systemError == 0 ? IoResult{IoResult::Closed, 0, {}}
                                : IoResult{IoResult::Failed, 0, errorText(systemError)};
    default:
        return {IoResult::Failed, 0, QStringLiteral("TLS: ") + takeSslErrors()};
    }
}

} // namespace simulator
