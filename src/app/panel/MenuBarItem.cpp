#include "app/panel/MenuBarItem.h"

#include "app/bridge/ProductBridge.h"
#include "app/design/Symbols.h"
#include "app/panel/PanelView.h"

#include <QApplication>
#include <QCryptographicHash>
#include <QLocalServer>
#include <QLocalSocket>
#include <QMenu>
#include <QSystemTrayIcon>

#include <unistd.h>

namespace vantle::app {

namespace {
constexpr QByteArrayView openPanelCall = "panel\n";
constexpr int callWaitMs = 1500;
} // namespace

MenuBarItem::MenuBarItem(ProductBridge& bridge, const QString& home, QObject* parent)
    : QObject(parent), bridge_(bridge) {
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        tray_ = new QSystemTrayIcon(symbolIcon("drive-harddisk"), this);
        tray_->setToolTip("Vantle Lite");
        auto* menu = new QMenu;
        connect(this, &QObject::destroyed, menu, &QObject::deleteLater);
        menu->addAction("Open Vantle Lite", this, &MenuBarItem::openWindow);
        menu->addAction("Show the Panel", this, &MenuBarItem::open);
        menu->addSeparator();
        menu->addAction("Quit Vantle Lite", qApp, &QApplication::quit);
        tray_->setContextMenu(menu);
        connect(tray_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason why) {
            if (why == QSystemTrayIcon::Trigger || why == QSystemTrayIcon::MiddleClick) toggle();
        });
        tray_->show();
    }
    listen(home);
}

MenuBarItem::~MenuBarItem() {
    delete panel_;
}

PanelView* MenuBarItem::panel() {
    if (!panel_) {
        panel_ = new PanelView(bridge_);
        connect(panel_, &PanelView::openWindow, this, &MenuBarItem::openWindow);
        connect(panel_, &PanelView::showInVantle, this, &MenuBarItem::showInVantle);
        connect(panel_, &PanelView::showActivity, this, &MenuBarItem::showActivity);
    }
    return panel_;
}

void MenuBarItem::open() {
    std::optional<QPoint> corner;
    // Under the tray icon where the desktop says where it is (X11 trays do; most others give nothing).
    if (tray_) {
        auto at = tray_->geometry();
        if (at.isValid() && !at.isEmpty()) corner = QPoint(at.right(), at.bottom() + 4);
    }
    panel()->open(corner);
}

void MenuBarItem::toggle() {
    if (panel_ && panel_->isVisible())
        panel_->hide();
    else
        open();
}

bool MenuBarItem::asksItself() const {
    return panel_ && panel_->asking();
}

QString MenuBarItem::hotKeyNote() const {
    QString where = "in the desktop's keyboard settings";
    auto desktop = qEnvironmentVariable("XDG_CURRENT_DESKTOP").toLower();
    if (desktop.contains("gnome"))
        where = "in Settings ▸ Keyboard ▸ Custom Shortcuts";
    else if (desktop.contains("kde"))
        where = "in System Settings ▸ Shortcuts (Add New ▸ Command or Script)";
    else if (desktop.contains("xfce"))
        where = "in Keyboard ▸ Application Shortcuts";
    auto note = QString("Apps cannot take a key of their own on this desktop. Give this key to a shortcut %1 "
                        "that runs:<br><code>vantle-lite&nbsp;--panel</code>")
                    .arg(where.toHtmlEscaped());
    if (!tray_) note += "<br>This desktop shows no tray: the panel also opens from Window ▸ Menu Bar Panel.";
    return note;
}

QString MenuBarItem::callName(const QString& home) {
    // One name per user and run: a sandbox's app answers only calls made for that sandbox.
    auto run = QCryptographicHash::hash(home.toUtf8(), QCryptographicHash::Sha256).toHex().left(12);
    return QString("vantle-lite-%1-%2").arg(::getuid()).arg(QString::fromLatin1(run));
}

bool MenuBarItem::callRunning(const QString& home) {
    QLocalSocket socket;
    socket.connectToServer(callName(home));
    if (!socket.waitForConnected(callWaitMs)) return false;
    socket.write(openPanelCall.data(), openPanelCall.size());
    if (!socket.waitForBytesWritten(callWaitMs)) return false;
    // The answer says the panel was opened; a server that goes away first counts as none.
    return socket.waitForReadyRead(callWaitMs) && socket.readAll().startsWith("ok");
}

void MenuBarItem::listen(const QString& home) {
    auto name = callName(home);
    // Another app of this run already answers: leave its socket alone.
    {
        QLocalSocket probe;
        probe.connectToServer(name);
        if (probe.waitForConnected(200)) return;
    }
    QLocalServer::removeServer(name); // a socket file left by an app that ended without closing it
    server_ = new QLocalServer(this);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(name)) return;
    connect(server_, &QLocalServer::newConnection, this, [this] {
        while (auto* socket = server_->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                if (!socket->readAll().startsWith("panel")) return socket->disconnectFromServer();
                open();
                socket->write("ok\n");
                socket->flush();
                socket->disconnectFromServer();
            });
        }
    });
}

} // namespace vantle::app
