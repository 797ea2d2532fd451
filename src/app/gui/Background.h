#pragma once
// Work for the background queue whose result comes back to the window's thread, where `then`
// runs unless `owner` has gone by then.

#include <QObject>
#include <QPointer>
#include <utility>

#include "core/GCD.h"

namespace quillon::gui {

template <typename Work, typename Then>
void inBackground(QObject* owner, Work work, Then then) {
    QPointer<QObject> guard(owner);
    GCD::doInBackground([guard, work = std::move(work), then = std::move(then)]() mutable {
        auto result = work();
        GCD::doInForeground([guard, then = std::move(then), result = std::move(result)]() mutable {
            if (guard) then(std::move(result));
        });
    });
}

}  // namespace quillon::gui
