// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtNetwork/QSslError>

#include <memory>
#include <optional>

struct bio_st; // OpenSSL's BIO
struct ssl_st; // SSL
struct x509_store_ctx_st; // X509_STORE_CTX

namespace tls {

class Context;

//! What happened in a handshake, as the signals of a QSslSocket tell it.
struct HandshakeReport
{
    struct Alert
    {
        bool sent; // or received
        int value; // see tls::alertType()
    };

    QList<Alert> alerts;
    QList<QSslError> peerErrors; // one by one, in their order
    QList<QSslError> errors; // all of them, when the handshake was done otherwise
    std::optional<QSslError> interruption;
    QString failure; // empty: none, or none that OpenSSL knows of
};

/*!
    The server's side of TLS on one connection. It knows no socket: bytes of the peer go in, bytes
    for the peer and plain bytes come out.

    What is fed is used in place. The rest that a call leaves is copied only by keepRest().

    Thread: one at a time, any.
    Owner:  the caller.
*/
class Session
{
public:
    enum class Step { Unfinished, Done, Failed };

    explicit Session(std::shared_ptr<const Context> common);
    ~Session();
    Q_DISABLE_COPY_MOVE(Session)

    // Bytes of the peer for the next calls, which must stay until keepRest().
    void feed(QByteArrayView received);
    // What was fed may go now.
    void keepRest();
    // Whether fed bytes were not used yet. More can be read then, unless it is over.
    bool hasRest() const { return !fed.isEmpty(); }

    // Goes on with what was fed. Do not call it again after Done or Failed.
    Step handshake();
    // What has happened. Once, when the handshake is over.
    HandshakeReport takeReport();

    // Copies plain bytes. At most one record is used in a call. Returns 0 if it had none.
    qsizetype read(char *to, qsizetype most);
    // The peer has said that nothing follows.
    bool isClosed() const { return state == Closed; }
    // What came was no TLS, or not from the peer, or too much that carries no data.
    bool isBroken() const { return state == Broken; }

    // Tells the peer that nothing follows.
    void close();
    // Bytes for the peer.
    const QByteArray &unsent() const { return outgoing; }
    // The first of them were sent.
    void sent(qsizetype size)
    {
        outgoing.remove(0, size);
        if (outgoing.isEmpty())
            outgoing = {}; // without its memory
    }

    // Callbacks of OpenSSL while it verifies: they note the error and go on, or interrupt the
    // handshake.
    static int collectError(int good, x509_store_ctx_st *certificate);
    static int interruptAtError(int good, x509_store_ctx_st *certificate);

private:
    struct Free
    {
        void operator()(ssl_st *freed) const;
    };
    struct Handshake;
    enum State { Open, Closed, Broken };

    static bio_st *makeBio(Session *owner);
    static int readFed(bio_st *bio, char *to, int most);
    static int writeOutgoing(bio_st *bio, const char *from, int size);
    static long control(bio_st *bio, int command, long number, void *pointer);
    static void noteAlert(const ssl_st *ssl, int where, int value);
    static Session *of(const ssl_st *ssl);
    static Session *of(x509_store_ctx_st *certificate);

    Step fail(const QString &why);
    bool verifyPeer();
    void addErrorsOfResumed(const QSslCertificate &shown);

    const std::shared_ptr<const Context> context;
    std::unique_ptr<Handshake> begun; // until the handshake is over
    QByteArrayView fed; // what was not used yet
    QByteArray kept; // the bytes of fed, if they are not the caller's
    QByteArray outgoing;
    std::unique_ptr<ssl_st, Free> ssl; // after what it uses
    int emptyRecords = 0; // in a row, without data
    State state = Open;
};

} // namespace tls
