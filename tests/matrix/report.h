// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "round.h"

#include <QtCore/QList>
#include <QtCore/QTextStream>

/*!
    The matrix as Markdown tables.
*/
class Report
{
public:
    void add(const QList<CellResult> &results);
    bool isClean() const;

    // One row for each ending, transport and engine, one column for each host. Segmentations are
    // added up.
    void write(QTextStream &out) const;
    // One row for each cell.
    void writeCells(QTextStream &out) const;

private:
    void writeHosts(QTextStream &out, const Named<Keys> &keys) const;
    void writeLeftovers(QTextStream &out) const;

    QList<CellResult> cells;
};
