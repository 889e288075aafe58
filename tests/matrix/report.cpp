// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "report.h"

#include <algorithm>
#include <functional>
#include <optional>

namespace {

template<class Value, std::size_t Count>
QString nameOf(const std::array<Named<Value>, Count> &names, Value value)
{
    for (const auto &named : names) {
        if (named.value == value)
            return QString::fromLatin1(named.name);
    }
    return QString();
}

// The sum of all cells that match. Nothing if no cell matches.
std::optional<CellResult> sum(const QList<CellResult> &cells,
                              const std::function<bool(const Cell &)> &matches)
{
    std::optional<CellResult> total;
    for (const CellResult &result : cells) {
        if (!matches(result.cell))
            continue;
        if (total)
            total->add(result);
        else
            total = result;
    }
    return total;
}

QString percentage(qint64 part, qint64 whole)
{
    if (part == 0 || whole == 0)
        return QString::number(part);
    const double percent = 100.0 * static_cast<double>(part) / static_cast<double>(whole);
    return percent < 0.1 ? QStringLiteral("< 0.1 %")
                         : QString::number(percent, 'f', 1) + QStringLiteral(" %");
}

QString judgement(const CellResult &result)
{
    return QStringLiteral("%1 / %2 / %3")
            .arg(result.missing)
            .arg(result.outOfOrder)
            .arg(percentage(result.repeated, result.accepted));
}

QString rowName(const Cell &cell)
{
    QString transport = nameOf(Transports, cell.transport);
    if (!cell.engine.isEmpty())
        transport += QStringLiteral(", engine %1").arg(cell.engine);
    return QStringLiteral("| %1 | %2 |").arg(nameOf(Endings, cell.ending), transport);
}

// Calls function for each row of the table, with the sum of the row's cells.
void forEachRow(const QList<CellResult> &cells,
                const std::function<void(const CellResult &total)> &function)
{
    for (const auto &ending : Endings) {
        for (const auto &transport : Transports) {
            for (const QString &engine : enginesOf(transport.value)) {
                const auto total = sum(cells, [&](const Cell &cell) {
                    return cell.ending == ending.value && cell.transport == transport.value
                            && cell.engine == engine;
                });
                if (total)
                    function(*total);
            }
        }
    }
}

} // namespace

void Report::add(const QList<CellResult> &results)
{
    for (const CellResult &result : results) {
        const auto same = [&result](const CellResult &known) {
            return known.cell.ending == result.cell.ending
                    && known.cell.transport == result.cell.transport
                    && known.cell.engine == result.cell.engine
                    && known.cell.segmentation == result.cell.segmentation
                    && known.cell.host == result.cell.host && known.cell.keys == result.cell.keys;
        };
        const auto known = std::find_if(cells.begin(), cells.end(), same);
        if (known == cells.end())
            cells.append(result);
        else
            known->add(result);
    }
}

bool Report::isClean() const
{
    return std::all_of(cells.begin(), cells.end(),
                       [](const CellResult &result) { return result.isClean(); });
}

void Report::write(QTextStream &out) const
{
    const auto total = sum(cells, [](const Cell &) { return true; });
    if (!total)
        return;
    out << total->connections << " connections, " << total->accepted
        << " bytes accepted by the devices' kernels: " << total->missing << " missing, "
        << total->outOfOrder << " out of order, " << total->failed << " devices not served, "
        << total->wrongEnds << " ends not told once.\n";
    for (const auto &keys : KeySets)
        writeHosts(out, keys);
    writeLeftovers(out);
}

void Report::writeHosts(QTextStream &out, const Named<Keys> &keys) const
{
    QString title = QString::fromLatin1(keys.name);
    title[0] = title[0].toUpper();
    out << "\n### " << title << '\n';
    out << "\nBytes missing / out of order / repeated.\n\n| Ending | Transport |";
    for (const auto &kind : HostKinds)
        out << ' ' << kind.name << " |";
    out << "\n|---|---|---|---|---|---|\n";
    forEachRow(cells, [&](const CellResult &row) {
        out << rowName(row.cell);
        for (const auto &kind : HostKinds) {
            const auto total = sum(cells, [&](const Cell &cell) {
                return cell.ending == row.cell.ending && cell.transport == row.cell.transport
                        && cell.engine == row.cell.engine && cell.host == kind.value
                        && cell.keys == keys.value;
            });
            out << ' ' << (total ? judgement(*total) : QString()) << " |";
        }
        out << '\n';
    });
}

void Report::writeLeftovers(QTextStream &out) const
{
    out << "\n### What never reached the plugin's clients\n\nBytes, of all hosts together; rows "
           "with "
           "nothing but zeros are left out.\n\n"
           "| Ending | Transport | Connections | Accepted | Thrown away by the device's kernel | "
           "Still in our kernel | Connections not yet taken | Their bytes |\n"
           "|---|---|---|---|---|---|---|---|\n";
    forEachRow(cells, [&out](const CellResult &row) {
        if (row.thrownAway + row.inKernel + row.notTaken + row.notTakenBytes == 0)
            return;
        out << rowName(row.cell) << ' ' << row.connections << " | " << row.accepted << " | "
            << row.thrownAway << " | " << row.inKernel << " | " << row.notTaken << " | "
            << row.notTakenBytes << " |\n";
    });
}

void Report::writeCells(QTextStream &out) const
{
    out << "| Ending | Transport | Segmentation | Host | Keys | Connections | Accepted | Missing "
           "| "
           "Out of order | Repeated | Thrown away | In our kernel | Not taken | Not served |\n"
           "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n";
    for (const CellResult &result : cells) {
        const Cell &cell = result.cell;
        out << rowName(cell) << ' ' << nameOf(Segmentations, cell.segmentation) << " | "
            << nameOf(HostKinds, cell.host) << " | " << nameOf(KeySets, cell.keys) << " | "
            << result.connections << " | " << result.accepted << " | " << result.missing << " | "
            << result.outOfOrder << " | " << result.repeated << " | " << result.thrownAway << " | "
            << result.inKernel << " | " << result.notTaken << " | " << result.failed << " |\n";
    }
}
