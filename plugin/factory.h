// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QMap>
#include <QtCore/QString>

class IInputPlugin;
class QJsonObject;
class QObject;

//! Makes objects of one interface.
template<class Interface>
class Factory
{
public:
    //! Makes objects of one class.
    class Q_DECL_EXPORT Creator
    {
    public:
        Creator() = default;
        virtual ~Creator() = default;
        Creator(const Creator &) = delete;
        Creator &operator=(const Creator &) = delete;

        // A new object without parent and without configuration; the caller owns it.
        virtual Interface *create() const = 0;
    };
};

//! The creator of one class that implements the interface.
template<class Class, class Interface>
class Register
{
public:
    //! See Factory.
    class Creator : public Factory<Interface>::Creator
    {
    public:
        Interface *create() const override { return function ? function() : new Class(nullptr); }

    private:
        // Never set by this library. Binary interface: it keeps the object's size.
        Interface *(*function)() = nullptr;
    };
};

/*!
    The host's map of creators by class name. The host owns the map and the creators in it.
*/
using InputPluginCreators = QMap<QString, const Factory<IInputPlugin>::Creator *>;

// The two entry points of an input plugin library, resolved by the names "registerPlugin" and
// "create". Neither takes a lock: do not call them concurrently on one map, nor while a creator is
// in use.
extern "C" {
// Adds the library's creator to the map under "TcpInputPlugin2". Deletes the entry that was there
// before; copies of the map then hold a dangling pointer.
using RegisterPluginFunction = void (*)(InputPluginCreators &creators);
// Returns a new plugin with a copy of the configuration. The parent owns it; without a parent the
// caller does.
using CreatePluginFunction = IInputPlugin *(*)(QObject *parent, const QJsonObject &config);
}
