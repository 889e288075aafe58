// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/page.h"

#include "pagetext.h" // made of page.html by CMake

#include <QtCore/QCryptographicHash>

namespace host {
namespace {

// Of the page's only element of this name, as a source in a policy.
QByteArray hashOf(const QByteArray &html, const QByteArray &element)
{
    const QByteArray opening = '<' + element + '>';
    const qsizetype begin = html.indexOf(opening) + opening.size();
    const qsizetype end = html.indexOf("</" + element + '>', begin);
    const QByteArray content = html.mid(begin, end - begin);
    return "'sha256-" + QCryptographicHash::hash(content, QCryptographicHash::Sha256).toBase64()
            + '\'';
}

} // namespace

QByteArray pageHtml()
{
    return QByteArray::fromRawData(PageText, sizeof(PageText) - 1);
}

QByteArray pagePolicy()
{
    const QByteArray html = pageHtml();
    return "default-src 'none'; connect-src 'self'; script-src " + hashOf(html, "script")
            + "; style-src " + hashOf(html, "style")
            + "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
}

} // namespace host
