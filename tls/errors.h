// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>
#include <QtNetwork/QSsl>
#include <QtNetwork/QSslError>

class QSslCertificate;
struct x509_st; // OpenSSL's X509

// What OpenSSL says, as Qt says it: log lines show these texts.
namespace tls {

// All errors of the calling thread's queue, which is empty afterwards.
QString takeErrors();
// Forgets them. Before each call of OpenSSL whose errors are asked for: other connections and the
// host share the queue of the thread.
void clearErrors();

// code: X509_V_ERR_...; certificate: that it is about.
QSslError errorFrom(int code, const QSslCertificate &certificate);

// A null one for null.
QSslCertificate certificateFrom(x509_st *certificate);

//! An alert, as its value in OpenSSL's callback has it.
QSsl::AlertLevel alertLevel(int value);
QSsl::AlertType alertType(int value);
QString alertText(int value);

} // namespace tls
