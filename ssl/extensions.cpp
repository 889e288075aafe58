// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/extensions.h"

#include "plugin/cwrn.h"
#include "ssl/algorithms.h"
#include "ssl/opensslobjects.h"
#include "ssl/privatekey.h"
#include "ssl/sslvalues.h"
#include "tls/settings.h"

#include <QtCore/QFile>
#include <QtCore/QJsonObject>

#include <algorithm>
#include <optional>

namespace {

constexpr auto OwnEngineKeys = {"CRLFile", "minimumSecurity", "sessionTickets"};

std::optional<QByteArray> contentOf(const QString &name)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return file.readAll();
}

QByteArray firstLineOf(const QByteArray &text)
{
    const QByteArray line = text.split('\n').first();
    return line.endsWith('\r') ? line.chopped(1) : line;
}

QList<QSslCipher> ciphersOf(const QSslConfiguration &config, bool tls13)
{
    QList<QSslCipher> ciphers = config.ciphers();
    if (ciphers.isEmpty())
        ciphers = QSslConfiguration::supportedCiphers();
    const auto isOther = [tls13](const QSslCipher &cipher) {
        return (cipher.protocol() == QSsl::TlsV1_3) != tls13;
    };
    ciphers.erase(std::remove_if(ciphers.begin(), ciphers.end(), isOther), ciphers.end());
    return ciphers;
}

//! Reads one object. Each function is for one subject, and says in good whether all went well.
class Reader
{
public:
    Reader(const QJsonObject &object, tls::Settings &result) : config(object), settings(result) {}

    bool read()
    {
        readEngine();
        readAuthorities();
        readKey();
        readChain();
        readRevoked();
        readAlgorithms();
        if (!isOwn()) {
            setCiphersOfQt();
            setGroupsOfQt();
        }
        return good;
    }

private:
    bool has(const char *key) const { return config.contains(QLatin1String(key)); }
    QJsonValue value(const char *key) const { return config.value(QLatin1String(key)); }
    QString text(const char *key) const { return value(key).toString(); }
    bool isOwn() const { return settings.engine == tls::Engine::Own; }

    void readEngine();
    void readAuthorities();
    void readKey();
    void readChain();
    void readRevoked();
    void readAlgorithms();
    void setCiphersOfQt();
    void setGroupsOfQt();

    std::optional<QByteArray> keyText() const;
    QByteArray certificateText() const;
    std::optional<QByteArray> passPhrase();
    QList<QSslCertificate> chainFile();
    void needOwnEngine(const char *key);

    const QJsonObject &config;
    tls::Settings &settings;
    bool good = true;
};

void Reader::needOwnEngine(const char *key)
{
    CWRN(QtWarningMsg, QStringLiteral("SSL: %1 needs \"engine\": \"own\" with this value"),
         QString::fromLatin1(key));
    good = false;
}

void Reader::readEngine()
{
    if (text("engine") == QLatin1String("own"))
        settings.engine = tls::Engine::Own;
    settings.sessionTickets = value("sessionTickets").toBool();
    settings.minimumSecurity = value("minimumSecurity").toInt(settings.minimumSecurity);
    for (const char *key : OwnEngineKeys) {
        if (!isOwn() && has(key) && value(key) != QJsonValue(false))
            needOwnEngine(key);
    }
}

// Qt looks the system's CAs up when it needs them, until a CA is added: from then on only those of
// its list count. So, as long as the key is absent, one's own CA takes the place of the system's.
void Reader::readAuthorities()
{
    const bool hasOwn = has("CAFile") || has("CACertificate");
    settings.systemCas = value("systemCAs").toBool(!hasOwn);
    if (!has("systemCAs"))
        return;
    QSslConfiguration &base = settings.base;
    const qsizetype others = QSslConfiguration::defaultConfiguration().caCertificates().size();
    if (!settings.systemCas)
        base.setCaCertificates(base.caCertificates().mid(others));
    else if (hasOwn)
        base.addCaCertificates(QSslConfiguration::systemCaCertificates());
}

// Nothing if there is none, or its file cannot be opened.
std::optional<QByteArray> Reader::keyText() const
{
    if (has("PrivateKey"))
        return text("PrivateKey").toUtf8();
    return has("KeyFile") ? contentOf(text("KeyFile")) : std::nullopt;
}

std::optional<QByteArray> Reader::passPhrase()
{
    if (!has("KeyPassphraseFile"))
        return std::nullopt;
    const auto content = contentOf(text("KeyPassphraseFile"));
    if (content)
        return firstLineOf(*content);
    CWRN(QtWarningMsg, QStringLiteral("SSL: Failed to open pass phrase file %1"),
         text("KeyPassphraseFile"));
    good = false;
    return std::nullopt;
}

void Reader::readKey()
{
    const bool any = text("KeyAlgorithm") == QLatin1String("auto");
    if (!any && !has("KeyPassphraseFile"))
        return;
    const auto phrase = passPhrase();
    const auto pem = keyText();
    if (!pem || (has("KeyPassphraseFile") && !phrase))
        return;
    const tls::PrivateKey read = tls::readPrivateKey(
            *pem, any ? tls::KeyAlgorithm::Any : tls::KeyAlgorithm::Rsa, phrase);
    settings.base.setPrivateKey(read.key);
    if (!read.key.isNull())
        return;
    CWRN(QtWarningMsg, QStringLiteral("SSL: %1 cannot be used: %2"),
         has("PrivateKey") ? QStringLiteral("PrivateKey") : QStringLiteral("KeyFile"), read.fault);
    good = false;
}

// Empty if there is none, or its file cannot be opened.
QByteArray Reader::certificateText() const
{
    if (has("Certificate"))
        return text("Certificate").toUtf8();
    return has("CertFile") ? contentOf(text("CertFile")).value_or(QByteArray()) : QByteArray();
}

// "ChainFile" wins: a certificate's own file may hold the same chain.
void Reader::readChain()
{
    QList<QSslCertificate> chain;
    if (has("ChainFile")) {
        chain = chainFile();
        chain.removeAll(settings.base.localCertificate()); // some begin with it
        chain.prepend(settings.base.localCertificate());
    } else if (value("Chain").toBool()) {
        chain = QSslCertificate::fromData(certificateText(), QSsl::Pem);
    }
    if (chain.size() > 1 && !chain.first().isNull())
        settings.base.setLocalCertificateChain(chain);
}

// Empty if it cannot be used.
QList<QSslCertificate> Reader::chainFile()
{
    const QString name = text("ChainFile");
    const auto pem = contentOf(name);
    if (pem && tls::holdsPem<PEM_read_bio_X509, X509_free>(*pem))
        return QSslCertificate::fromData(*pem, QSsl::Pem);
    if (!pem)
        CWRN(QtWarningMsg, QStringLiteral("SSL: Failed to open chain file %1"), name);
    else
        CWRN(QtWarningMsg,
             QStringLiteral("SSL: No certificates, or a broken one, in chain file %1"), name);
    good = false;
    return {};
}

void Reader::readRevoked()
{
    if (!isOwn() || !has("CRLFile"))
        return;
    const QString name = text("CRLFile");
    const auto pem = contentOf(name);
    if (pem && tls::holdsPem<PEM_read_bio_X509_CRL, X509_CRL_free>(*pem)) {
        settings.revoked = *pem;
        return;
    }
    if (!pem)
        CWRN(QtWarningMsg, QStringLiteral("SSL: Failed to open CRL file %1"), name);
    else
        CWRN(QtWarningMsg,
             QStringLiteral(
                     "SSL: No list of revoked certificates, or a broken one, in CRL file %1"),
             name);
    good = false;
}

void Reader::readAlgorithms()
{
    settings.ciphers = text("Ciphers").toUtf8();
    settings.cipherSuites = text("CipherSuites").toUtf8();
    settings.groups = text("Groups").toUtf8();
}

// Qt has one list for all versions: what the configuration does not name stays as it was.
void Reader::setCiphersOfQt()
{
    if (!has("Ciphers") && !has("CipherSuites"))
        return;
    auto suites = ciphersOf(settings.base, true);
    auto ciphers = ciphersOf(settings.base, false);
    if (has("CipherSuites")) {
        suites = tls::cipherSuitesFrom(settings.cipherSuites);
        if (suites.isEmpty())
            needOwnEngine("CipherSuites");
    }
    if (has("Ciphers")) {
        ciphers = tls::ciphersFrom(settings.ciphers);
        // Qt sets the security level itself.
        if (ciphers.isEmpty() || settings.ciphers.contains("@SECLEVEL"))
            needOwnEngine("Ciphers");
    }
    settings.base.setCiphers(suites + ciphers);
}

void Reader::setGroupsOfQt()
{
    if (!has("Groups"))
        return;
    const auto groups = tls::groupsFrom(settings.groups);
    if (groups.isEmpty())
        needOwnEngine("Groups");
    settings.base.setEllipticCurves(groups);
}

} // namespace

bool tls::readExtensions(const QJsonObject &config, Settings &settings)
{
    return Reader(config, settings).read();
}
