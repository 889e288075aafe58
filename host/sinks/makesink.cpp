// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/makesink.h"

#include "host/sinks/countingsink.h"
#include "host/sinks/storesink.h"
#include "host/sinks/streamsink.h"
#if defined(HOST_HAS_SQLITE) || defined(HOST_HAS_POSTGRESQL)
#include "host/sinks/sql/sqlstore.h"
#endif
#ifdef HOST_HAS_SQLITE
#include "host/sinks/sql/sqlitedatabase.h"
#endif
#ifdef HOST_HAS_POSTGRESQL
#include "host/sinks/sql/postgresdatabase.h"
#endif
#ifdef HOST_HAS_NATS
#include "host/sinks/nats/natsstore.h"
#endif

#include <QtCore/QRandomGenerator>

#include <array>

#include <unistd.h>

namespace host {
namespace {

std::unique_ptr<Sink> makeStream(StreamFormat format, const QString &file)
{
    if (file.isEmpty())
        return std::make_unique<StreamSink>(format, STDOUT_FILENO);
    return std::make_unique<StreamSink>(format, file);
}

} // namespace

std::unique_ptr<Sink> makeSink(const OutputOptions &options, Framing framing, const QString &epoch)
{
    switch (options.kind) {
    case OutputOptions::Json:
        return makeStream({StreamFormat::Json, framing}, options.target);
    case OutputOptions::Raw:
        return makeStream({StreamFormat::Raw, framing}, options.target);
    case OutputOptions::Count:
        return std::make_unique<CountingSink>(STDOUT_FILENO);
    case OutputOptions::None:
        return std::make_unique<CountingSink>(-1);
    default:
        break;
    }
    std::unique_ptr<Store> store = makeStore(options, epoch);
    return store ? std::make_unique<StoreSink>(std::move(store)) : nullptr;
}

std::unique_ptr<Store> makeStore(const OutputOptions &options, const QString &epoch)
{
    Q_UNUSED(epoch)
#ifdef HOST_HAS_SQLITE
    if (options.kind == OutputOptions::Sqlite)
        return std::make_unique<SqlStore>(
                std::make_unique<SqliteDatabase>(options.target, epoch, options.keep));
#endif
#ifdef HOST_HAS_POSTGRESQL
    if (options.kind == OutputOptions::Postgres)
        return std::make_unique<SqlStore>(std::make_unique<PostgresDatabase>(
                PostgresAddress(options.target.toUtf8()), epoch.toLatin1()));
#endif
#ifdef HOST_HAS_NATS
    if (options.kind == OutputOptions::Nats) {
        NatsSettings settings = options.nats;
        settings.epoch = epoch.toLatin1();
        return std::make_unique<NatsStore>(settings);
    }
#endif
    return nullptr;
}

QString newEpoch()
{
    std::array<quint32, 4> numbers = {};
    QRandomGenerator::system()->generate(numbers.begin(), numbers.end());
    QString epoch;
    for (const quint32 number : numbers)
        epoch += QStringLiteral("%1").arg(number, 8, 16, QLatin1Char('0'));
    return epoch;
}

} // namespace host
