// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/check/configcheck.h"

#include "host/check/deviceview.h"
#include "host/check/keychecks.h"
#include "host/check/portcheck.h"
#include "host/configuration.h"
#include "host/tlschecks.h"
#include "tcpinput/configuration/configuration.h"

#include <QtCore/QDateTime>

#include <utility>

namespace host {
namespace {

//! Log lines, instead of writing them.
class CaughtLines
{
public:
    CaughtLines() : before(qInstallMessageHandler(take)) { caught.clear(); }
    ~CaughtLines() { qInstallMessageHandler(before); }
    Q_DISABLE_COPY_MOVE(CaughtLines)

    QStringList lines() const { return caught; }

private:
    static void take(QtMsgType level, const QMessageLogContext &, const QString &line)
    {
        constexpr qsizetype TimeSize = 13; // "hh:mm:ss.zzz "
        if (level != QtDebugMsg && level != QtInfoMsg)
            caught += line.sliced(std::min(TimeSize, line.size()));
    }

    static inline QStringList caught;
    const QtMessageHandler before;
};

bool isOfTls(const Checker::Fault &fault)
{
    return fault.key.startsWith(QLatin1String("ssl.")) && !fault.isUnknown;
}

QString shownNames(const QStringList &names)
{
    return names.isEmpty() ? QStringLiteral("no name") : names.join(QLatin1String(", "));
}

} // namespace

ExitCode ConfigCheck::run()
{
    ConfigurationReader reader(options);
    if (!reader.read()) {
        refuse(ExitBadConfiguration, reader.errorString());
        return outcome;
    }
    const QJsonObject configuration = withDefaults(reader.configuration());
    checkKeys(configuration);
    checkSetup(configuration);
    return outcome;
}

void ConfigCheck::checkKeys(const QJsonObject &configuration)
{
    const QList<Checker::Fault> faults = keyFaults(configuration);
    for (const Checker::Fault &fault : faults)
        refuse(isOfTls(fault) ? ExitBadCertificates : ExitBadConfiguration, shown(fault));
    const QString refusal = tlsRefusal(configuration);
    if (!refusal.isEmpty())
        refuse(ExitBadConfiguration, refusal);
}

void ConfigCheck::checkSetup(const QJsonObject &configuration)
{
    Configuration setup;
    {
        const CaughtLines caught;
        const bool isGood = setup.apply(configuration, options.id);
        for (const QString &line : caught.lines())
            isGood ? tell("warning", line) : refuse(ExitBadCertificates, line);
        if (!isGood && outcome == ExitOk)
            refuse(ExitBadCertificates, QStringLiteral("TLS cannot be set up"));
    }
    if (setup.useTls)
        checkCertificates(configuration.value(QLatin1String("ssl")).toObject());
    const QString warning = plainTcpWarning(configuration, setup.address.toString());
    if (!warning.isEmpty())
        tell("warning", warning);
    const QString refusal = portRefusal(setup.address, setup.port);
    if (!refusal.isEmpty())
        refuse(ExitNotListening,
               QStringLiteral("Port %1 of %2 cannot be had: %3")
                       .arg(setup.port)
                       .arg(setup.address.toString(), refusal));
}

void ConfigCheck::checkCertificates(const QJsonObject &ssl)
{
    const std::vector<certificates::Certificate> list = certificates::certificatesOf(ssl);
    if (list.empty()) {
        refuse(ExitBadCertificates,
               QStringLiteral("There is no certificate: no device can connect"));
        return;
    }
    if (!certificates::keyOf(ssl))
        refuse(ExitBadCertificates, QStringLiteral("There is no private key that can be read"));
    const QString mismatch = mismatchOf(ssl);
    if (!mismatch.isEmpty())
        refuse(ExitBadCertificates, mismatch);
    QStringList warnings = certificateWarnings(ssl, QDateTime::currentDateTimeUtc());
    warnings.removeAll(mismatch);
    for (const QString &warning : std::as_const(warnings))
        tell("warning", warning);
    for (const certificates::Certificate &each : list) {
        if (!isValidNow(each))
            refuse(ExitBadCertificates,
                   QStringLiteral("Certificate %1 is not valid now: devices refuse it")
                           .arg(certificates::nameOf(each)));
    }
    tell("note",
         QStringLiteral("Certificate %1 is for %2 and ends on %3. A device that trusts the "
                        "system's CAs says: %4")
                 .arg(certificates::nameOf(list.front()), shownNames(serverNamesOf(list.front())),
                      certificates::endOf(list.front()).date().toString(Qt::ISODate),
                      verdictOf(list)));
}

void ConfigCheck::tell(const char *kind, const QString &text)
{
    findings += QStringLiteral("%1: %2").arg(QLatin1String(kind), text);
}

void ConfigCheck::refuse(ExitCode code, const QString &text)
{
    tell("error", text);
    if (outcome == ExitOk)
        outcome = code;
}

} // namespace host
