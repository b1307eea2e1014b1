#pragma once

#include <QApplication>
#include <QTimer>
#include <QWidget>

#include <functional>
#include <memory>

// Lets a test act on a modal window that the code under test opens and runs
// with exec(): the action runs as soon as a modal window of type T is on top,
// and should close it; a window it leaves open is rejected with a warning,
// so that the test fails on its comparisons instead of hanging. Polls every
// 10 ms and gives up after 10 s, so that a window that never shows fails the
// test instead of hanging it.
template <typename T> void whenModal(std::function<void(T *)> action)
{
    constexpr int kPollMs = 10;
    constexpr int kPolls = 1000;
    auto *timer = new QTimer;
    auto remaining = std::make_shared<int>(kPolls);
    QObject::connect(timer, &QTimer::timeout, [timer, remaining, action] {
        T *window = qobject_cast<T *>(QApplication::activeModalWidget());
        if (window || --*remaining <= 0) {
            timer->stop();
            timer->deleteLater();
        }
        if (!window)
            return;
        action(window);
        if (window->isVisible()) {
            qWarning("whenModal: the action left %s open; rejecting it", window->metaObject()->className());
            QMetaObject::invokeMethod(window, "reject");
        }
    });
    timer->start(kPollMs);
}
