// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/sql/postgresaddress.h"

#include <QtCore/QRegularExpression>

#include <memory>

#include <libpq-fe.h>

namespace host {
namespace {

struct OptionsDeleter
{
    void operator()(PQconninfoOption *options) const { PQconninfoFree(options); }
};
using Options = std::unique_ptr<PQconninfoOption, OptionsDeleter>;

QByteArray withScheme(const QByteArray &text)
{
    return text.startsWith("//") ? "postgresql:" + text : text;
}

// What libpq quotes may be a piece of a password.
QString withoutQuotations(const QString &message)
{
    static const QRegularExpression quotation(QStringLiteral("\"[^\"]*\""));
    return QString(message).replace(quotation, QStringLiteral("\"...\"")).simplified();
}

} // namespace

PostgresAddress::PostgresAddress(const QByteArray &text) : connectionString(withScheme(text))
{
    if (connectionString.contains('=') || connectionString.contains("://"))
        read();
    else
        database = connectionString;
}

void PostgresAddress::read()
{
    char *complaint = nullptr;
    const Options options(PQconninfoParse(connectionString.constData(), &complaint));
    if (!options) {
        error = withoutQuotations(QString::fromUtf8(complaint));
        PQfreemem(complaint);
        return;
    }
    for (const PQconninfoOption *option = options.get(); option->keyword; ++option) {
        const QByteArray keyword = option->keyword;
        const QByteArray value = option->val;
        if (*option->dispchar == '*' && !value.isEmpty())
            passwords += value;
        else if (keyword == "host")
            host = value;
        else if (keyword == "dbname")
            database = value;
    }
    // libpq would show it as a part of the host's name.
    if (host.contains('@')) {
        host.clear();
        error = QStringLiteral("a password in it has a @, which has to be written as %40");
    }
}

QString PostgresAddress::name() const
{
    QString name = QStringLiteral("PostgreSQL");
    if (!database.isEmpty())
        name += QStringLiteral(" database ") + QString::fromUtf8(database);
    if (!host.isEmpty())
        name += QStringLiteral(" on ") + QString::fromUtf8(host);
    return name;
}

QString PostgresAddress::redacted(const char *message) const
{
    QString text = QString::fromUtf8(message).simplified();
    for (const QByteArray &password : passwords)
        text.replace(QString::fromUtf8(password), QStringLiteral("***"));
    return text;
}

} // namespace host
