#include "Networking/QtHttpClient.h"

#include <glog/logging.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>
#include <QtCore/QList>
#include <QtCore/QSharedPointer>
#include <QtCore/QTimer>
#include <QtCore/QUrl>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkCookie>
#include <QtNetwork/QNetworkReply>
#include <QtNetwork/QNetworkRequest>
#include <QtNetwork/QNetworkSession>
#include <QtNetwork/QSslError>

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <limits>
#include <optional>

namespace Halvex::Networking {

namespace {

/// How much of a body a reply may hold for us when it is streamed; its connection may hold as much
/// again. Without a limit Qt 5 reads as fast as the server sends, whatever becomes of the data, and
/// loses some of it above 4 GiB.
constexpr qint64 kReadBufferBytes = 512 * 1024;

/// From where on Qt takes coarse timers when it is not told otherwise.
constexpr std::chrono::milliseconds kCoarseFrom(2000);

/// One request: the objects that live while its event loop runs, and what their signals do.
class Transfer {
public:
    explicit Transfer(const Options& options) : m_options(options) {
        m_manager.setRedirectPolicy(QNetworkRequest::NoLessSafeRedirectPolicy);
        QObject::connect(
            &m_manager, &QNetworkAccessManager::finished, &m_loop,
            [this](QNetworkReply* reply) { Guarded(*reply, [&] { OnFinished(*reply); }); },
            Qt::DirectConnection);
    }

    Response Run(const QNetworkRequest& request) {
        QNetworkReply* reply = m_manager.get(request);
        // Qt 5 deletes what has fetched a redirect later, in another thread. Until then that hears
        // the signal that starts the fetching of the target as well, and asks for the redirect once
        // more, whose head mixes with what the target sends. If it comes last, the reply never
        // ends.
        QObject::connect(reply, &QNetworkReply::redirected, reply,
                         [reply] { reply->disconnect(SIGNAL(startHttpRequest())); });
        if (m_options.dataCallback) {
            reply->setReadBufferSize(kReadBufferBytes);
            // Qt 5 sets up anew for a redirect's target, without the limit, after this signal.
            QObject::connect(
                reply, &QNetworkReply::redirected, reply,
                [reply] { reply->setReadBufferSize(kReadBufferBytes); }, Qt::QueuedConnection);
            // The body of a redirect is given to nobody: it would fill the buffer for good.
            QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, [reply] {
                constexpr int kRedirection = 3;
                const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
                if (status.toInt() / 100 == kRedirection)
                    reply->setReadBufferSize(0);
            });
            QObject::connect(reply, &QNetworkReply::readyRead, &m_loop,
                             [this, reply] { Guarded(*reply, [&] { HandOverData(*reply); }); });
        }
        if (m_options.progressCallback) {
            QObject::connect(reply, &QNetworkReply::downloadProgress, &m_loop,
                             [this, reply](qint64 received, qint64 total) {
                                 Guarded(*reply, [&] { OnProgress(*reply, received, total); });
                             });
        }
        // Not QTimer's static function: what that makes stays behind until the time-out has passed.
        QTimer timer;
        timer.setSingleShot(true);
        timer.setTimerType(Timeout() < kCoarseFrom ? Qt::PreciseTimer : Qt::CoarseTimer);
        QObject::connect(&timer, &QTimer::timeout, &m_loop, [this, reply] { Leave(*reply); });
        timer.start(Timeout());
        m_loop.exec(QEventLoop::ExcludeUserInputEvents);
        if (m_exception)
            std::rethrow_exception(m_exception);
        return std::move(m_response);
    }

private:
    std::chrono::milliseconds Timeout() const {
        return std::chrono::milliseconds(
            std::clamp<std::int64_t>(m_options.timeout / 1000, 0, std::numeric_limits<int>::max()));
    }

    /// Runs a handler; what it throws must not pass through Qt and is thrown again by Run.
    template <typename Handler>
    void Guarded(QNetworkReply& reply, Handler handler) {
        if (m_exception)
            return;
        try {
            handler();
        } catch (...) {
            m_exception = std::current_exception();
            Leave(reply);
        }
    }

    /// Closing a running reply finishes it at once, as cancelled.
    void Leave(QNetworkReply& reply) {
        reply.close();
        m_loop.quit();
    }

    std::string ReadAll(QNetworkReply& reply) {
        std::string data = reply.readAll().toStdString();
        m_received += static_cast<qint64>(data.size());
        return data;
    }

    void HandOverData(QNetworkReply& reply) {
        std::string data = ReadAll(reply);
        if (!data.empty())
            m_options.dataCallback(std::move(data));
    }

    void OnProgress(QNetworkReply& reply, qint64 received, qint64 total) {
        m_options.progressCallback(static_cast<std::size_t>(received),
                                   static_cast<std::size_t>(total));
        if (m_options.cancellationQuery())
            Leave(reply);
    }

    void OnFinished(QNetworkReply& reply) {
        switch (reply.error()) {
        case QNetworkReply::NoError:
            // What is left belongs to the same body as what has been handed over.
            if (m_options.dataCallback)
                HandOverData(reply);
            else
                m_response.body = ReadAll(reply);
            if (IsShort(reply)) {
                m_response.body.clear();
                m_response.errorCode = 4;
                m_response.errorText = "Connection closed";
            } else {
                m_response.errorCode = 0;
            }
            break;
        case QNetworkReply::OperationCanceledError:
            m_response.errorCode = 15;
            break;
        default:
            m_response.errorCode = 4;
            m_response.errorText = reply.errorString().toStdString();
        }
        Leave(reply);
    }

    /// Now and then Qt 5 reports no error for a body that ended short of its Content-Length. It
    /// takes that header away when it has decoded the body, whose length then differs.
    bool IsShort(const QNetworkReply& reply) const {
        bool isNumber = false;
        const qint64 announced = reply.rawHeader("Content-Length").trimmed().toLongLong(&isNumber);
        return isNumber && m_received < announced;
    }

    const Options& m_options;
    QEventLoop m_loop;
    QNetworkAccessManager m_manager;
    Response m_response;
    qint64 m_received = 0;
    std::exception_ptr m_exception;
};

/// The types that Qt can convert into others, before several threads make it register that at once,
/// which it then complains of.
void RegisterMetaTypesOnce() {
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    static const std::array types{qRegisterMetaType<QList<QSslError>>(),
                                  qRegisterMetaType<QList<QNetworkCookie>>(),
                                  qRegisterMetaType<QList<QNetworkReply::RawHeaderPair>>(),
                                  qRegisterMetaType<QSharedPointer<QNetworkSession>>()};
    QT_WARNING_POP
    Q_UNUSED(types)
}

} // namespace

Response QtHttpClient::get(const Request& request, const Options& options) {
    if (!request.url.isValid())
        return {};
    if (QCoreApplication::instance() == nullptr) {
        LOG(ERROR) << "request=" << request.url.toString()
                   << " needs a QCoreApplication, and there is none";
        return {};
    }
    RegisterMetaTypesOnce();
    const QUrl url(QString::fromStdString(request.url.toString()), QUrl::TolerantMode);
    return Transfer(options).Run(QNetworkRequest(url));
}

Response QtHttpClient::post(const Request&, const MultiPart&, const Options&) {
    return {};
}

Response QtHttpClient::post(const Request&, const std::string&, const Options&) {
    return {};
}

} // namespace Halvex::Networking
