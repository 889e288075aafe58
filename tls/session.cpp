// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tls/session.h"

#include "tls/context.h"
#include "tls/errors.h"

#include <QtCore/QDateTime>
#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QSslSocket>

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <utility>

namespace {

// Records without data that may follow each other. A peer changes its keys after billions of bytes;
// one that does nothing else keeps the processor busy.
constexpr int MostEmptyRecords = 1000;

int sessionIndex()
{
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

QList<QSslCertificate> chainOf(const SSL *ssl)
{
    QList<QSslCertificate> chain{tls::certificateFrom(SSL_get0_peer_certificate(ssl))};
    const STACK_OF(X509) *const others = SSL_get_peer_cert_chain(ssl);
    for (int i = 0; i < sk_X509_num(others); ++i)
        chain += tls::certificateFrom(sk_X509_value(others, i));
    return chain;
}

} // namespace

namespace tls {

//! What is needed only until the handshake is over.
struct Session::Handshake
{
    struct Error
    {
        int code;
        int depth; // of the certificate in the chain
    };
    QList<Error> found;
    qsizetype told = 0; // how many of them the report has
    HandshakeReport report;
};

void Session::Free::operator()(ssl_st *freed) const
{
    SSL_free(freed);
}

Session::Session(std::shared_ptr<const Context> common)
    : context(std::move(common)),
      begun(std::make_unique<Handshake>())
{
    if (!context->failure().isEmpty()) {
        fail(context->failure());
        return;
    }
    clearErrors();
    ssl.reset(SSL_new(context->handle()));
    bio_st *const bio = ssl ? makeBio(this) : nullptr;
    if (!bio || SSL_set_ex_data(ssl.get(), sessionIndex(), this) != 1) {
        fail(QSslSocket::tr("Error creating SSL session, %1").arg(takeErrors()));
        return;
    }
    SSL_set_bio(ssl.get(), bio, bio);
    SSL_set_accept_state(ssl.get());
    SSL_set_info_callback(ssl.get(), noteAlert);
}

Session::~Session() = default;

// One for both directions.
bio_st *Session::makeBio(Session *owner)
{
    static BIO_METHOD *const method = [] {
        BIO_METHOD *made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "memory");
        BIO_meth_set_read(made, readFed);
        BIO_meth_set_write(made, writeOutgoing);
        BIO_meth_set_ctrl(made, control);
        return made;
    }();
    BIO *const bio = BIO_new(method);
    if (bio) {
        BIO_set_data(bio, owner);
        BIO_set_init(bio, 1);
    }
    return bio;
}

int Session::readFed(bio_st *bio, char *to, int most)
{
    auto *const self = static_cast<Session *>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const auto size = std::min<qsizetype>(most, self->fed.size());
    if (size == 0) {
        BIO_set_retry_read(bio);
        return -1;
    }
    std::copy_n(self->fed.data(), size, to);
    self->fed = self->fed.sliced(size);
    return static_cast<int>(size);
}

int Session::writeOutgoing(bio_st *bio, const char *from, int size)
{
    BIO_clear_retry_flags(bio);
    static_cast<Session *>(BIO_get_data(bio))->outgoing.append(from, size);
    return size;
}

long Session::control(bio_st *, int command, long, void *)
{
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

Session *Session::of(const ssl_st *ssl)
{
    return static_cast<Session *>(SSL_get_ex_data(ssl, sessionIndex()));
}

Session *Session::of(x509_store_ctx_st *certificate)
{
    return of(static_cast<SSL *>(
            X509_STORE_CTX_get_ex_data(certificate, SSL_get_ex_data_X509_STORE_CTX_idx())));
}

void Session::noteAlert(const ssl_st *ssl, int where, int value)
{
    Session *const self = of(ssl);
    if ((where & SSL_CB_ALERT) && self->begun)
        self->begun->report.alerts.append({(where & SSL_CB_WRITE) != 0, value});
}

int Session::collectError(int good, x509_store_ctx_st *certificate)
{
    if (!good)
        of(certificate)
                ->begun->found.append({X509_STORE_CTX_get_error(certificate),
                                       X509_STORE_CTX_get_error_depth(certificate)});
    return 1; // all errors are known in the end
}

int Session::interruptAtError(int good, x509_store_ctx_st *certificate)
{
    if (!good)
        of(certificate)->begun->report.interruption =
                errorFrom(X509_STORE_CTX_get_error(certificate),
                          certificateFrom(X509_STORE_CTX_get_current_cert(certificate)));
    return good;
}

void Session::feed(QByteArrayView received)
{
    if (received.isEmpty())
        return;
    if (!fed.isEmpty()) {
        kept = fed.toByteArray().append(received);
        received = kept;
    }
    fed = received;
}

void Session::keepRest()
{
    kept = fed.toByteArray();
    fed = kept;
}

Session::Step Session::handshake()
{
    if (!ssl)
        return Step::Failed;
    int result = 0;
    int error = SSL_ERROR_NONE;
    qsizetype before = 0;
    clearErrors();
    do { // a call may end behind any record
        before = fed.size();
        result = SSL_do_handshake(ssl.get());
        error = SSL_get_error(ssl.get(), result);
    } while (error == SSL_ERROR_WANT_READ && !fed.isEmpty() && fed.size() < before);

    const bool hasNews = begun->found.size() > begun->told;
    const auto chain = hasNews ? chainOf(ssl.get()) : QList<QSslCertificate>();
    for (const Handshake::Error &each : std::as_const(begun->found).sliced(begun->told))
        begun->report.peerErrors += errorFrom(each.code, chain.value(each.depth));
    begun->told = begun->found.size();

    if (error == SSL_ERROR_WANT_READ)
        return Step::Unfinished;
    if (result != 1)
        return fail(QSslSocket::tr("Error during SSL handshake: %1").arg(takeErrors()));
    return verifyPeer() ? Step::Done : Step::Failed;
}

// What is wrong with the peer's certificate, in the order in which Qt tells it. False if the peer
// is refused.
bool Session::verifyPeer()
{
    HandshakeReport &report = begun->report;
    const bool isShown = SSL_get0_peer_certificate(ssl.get());
    if (!isShown && !context->verifiesPeer())
        return true;
    const auto chain = isShown ? chainOf(ssl.get()) : QList<QSslCertificate>();
    const auto tell = [&report](const QSslError &error) {
        report.errors += error;
        report.peerErrors += error;
    };
    for (const QSslCertificate &each : chain) {
        if (each.isBlacklisted())
            tell(QSslError(QSslError::CertificateBlacklisted, each));
    }
    if (!isShown)
        tell(QSslError(QSslError::NoPeerCertificate));
    for (const Handshake::Error &each : std::as_const(begun->found))
        report.errors += errorFrom(each.code, chain.value(each.depth));
    if (isShown && SSL_session_reused(ssl.get()))
        addErrorsOfResumed(chain.constFirst());
    if (report.errors.isEmpty() || !context->verifiesPeer())
        return true;
    report.failure = report.errors.constFirst().errorString();
    outgoing.clear(); // as with Qt, a peer with TLS 1.2 does not see the handshake end
    return false;
}

// OpenSSL verifies nothing then: the certificate is that of the ticket.
void Session::addErrorsOfResumed(const QSslCertificate &shown)
{
    QList<QSslError> &errors = begun->report.errors;
    if (const long code = SSL_get_verify_result(ssl.get()); code != X509_V_OK)
        errors += errorFrom(static_cast<int>(code), shown);
    else if (shown.expiryDate() < QDateTime::currentDateTimeUtc())
        errors += QSslError(QSslError::CertificateExpired, shown);
}

Session::Step Session::fail(const QString &why)
{
    begun->report.failure = why;
    return Step::Failed;
}

HandshakeReport Session::takeReport()
{
    return begun ? std::move(std::exchange(begun, nullptr)->report) : HandshakeReport();
}

qsizetype Session::read(char *to, qsizetype most)
{
    if (state != Open)
        return 0;
    clearErrors();
    const qsizetype before = fed.size();
    std::size_t size = 0;
    const int result = SSL_read_ex(ssl.get(), to, static_cast<std::size_t>(most), &size);
    if (result == 1) {
        emptyRecords = 0;
        return static_cast<qsizetype>(size);
    }
    switch (SSL_get_error(ssl.get(), result)) {
    case SSL_ERROR_WANT_READ:
        // Behind a record without data, the call ends although more may be there.
        if (fed.size() < before && (!fed.isEmpty() || !SSL_has_pending(ssl.get()))
            && ++emptyRecords > MostEmptyRecords)
            state = Broken;
        break;
    case SSL_ERROR_ZERO_RETURN:
        state = Closed;
        break;
    default:
        state = Broken;
    }
    clearErrors();
    return 0;
}

void Session::close()
{
    if (!ssl || state == Broken || SSL_in_init(ssl.get()))
        return;
    clearErrors();
    SSL_shutdown(ssl.get());
    clearErrors();
}

} // namespace tls
