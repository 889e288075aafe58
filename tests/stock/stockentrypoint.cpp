// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "planted.h"
#include "plugin/factory.h"
#include "stockplugin.h"

#include <algorithm>
#include <array>
#include <utility>

#include <unistd.h>

namespace {

// The places of start() and stop() in the table of virtual functions, and its size. Two more
// entries lie before the first function.
constexpr size_t StartPlace = 14;
constexpr size_t StopPlace = 15;
constexpr size_t TableSize = 19;
constexpr size_t BeforeTable = 2;

// A fault: a library that was built with its functions in another order.
void swapStartAndStop(IInputPlugin *plugin)
{
    static std::array<void *, BeforeTable + TableSize> table;
    auto *&functions = *reinterpret_cast<void ***>(plugin);
    std::copy_n(functions - BeforeTable, table.size(), table.begin());
    std::swap(table[BeforeTable + StartPlace], table[BeforeTable + StopPlace]);
    functions = table.data() + BeforeTable;
}

} // namespace

extern "C" {

Q_DECL_EXPORT void registerPlugin(InputPluginCreators &creators);
Q_DECL_EXPORT IInputPlugin *create(QObject *parent, const QJsonObject &config);

void registerPlugin(InputPluginCreators &creators)
{
    const QString key = QStringLiteral("TcpInputPlugin2");
    if (!stock::isPlanted("keeps-creator"))
        delete creators.value(key);
    creators.insert(key, new Register<stock::Plugin, IInputPlugin>::Creator);
}

IInputPlugin *create(QObject *parent, const QJsonObject &config)
{
    while (stock::isPlanted("create-pauses"))
        pause();
    auto *plugin = new stock::Plugin(parent, config);
    if (stock::isPlanted("virtual-order"))
        swapStartAndStop(plugin);
    return plugin;
}

} // extern "C"
