#include "core/io/ZnSslSessions_.h"

#include "core/platform/ZnMonotonicClock.h"

namespace {

constexpr int kExDataIndex = 0; // the one that is meant for the application

bool hasFunctions(const ZnOpenSslApi_& api) {
    return api.SSL_CTX_sess_set_new_cb != nullptr && api.SSL_set_ex_data != nullptr && api.SSL_get_ex_data != nullptr &&
           api.SSL_set_session != nullptr && api.SSL_SESSION_free != nullptr &&
           api.SSL_SESSION_get_protocol_version != nullptr && api.SSL_get_SSL_CTX != nullptr &&
           api.SSL_CTX_ctrl != nullptr;
}

} // namespace

void ZnSslSessions_::prepare(const ZnOpenSslApi_& api, SSL_CTX* context) {
    if (!hasFunctions(api))
        return;
    api.SSL_CTX_ctrl(context, SSL_CTRL_SET_SESS_CACHE_MODE, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL,
                     nullptr);
    api.SSL_CTX_sess_set_new_cb(context, &ZnSslSessions_::onNewSession_);
}

void ZnSslSessions_::attach(const ZnOpenSslApi_& api, const Context& context, SSL* ssl) {
    use_(context);
    api_ = &api;
    if (!hasFunctions(api))
        return;
    api.SSL_set_ex_data(ssl, kExDataIndex, this);
    if (isEmpty(monotonicNowNs()))
        return;
    const Entry_ newest = entries_.back();
    api.SSL_set_session(ssl, newest.session);
    // A ticket of TLS 1.3 is used once, or an observer could tell that two connections are of the same client.
    if (api.SSL_SESSION_get_protocol_version(newest.session) >= TLS1_3_VERSION) {
        entries_.pop_back();
        api.SSL_SESSION_free(newest.session);
    }
    api.clearErrors();
}

/// 1: the session is taken over.
int ZnSslSessions_::onNewSession_(SSL* ssl, SSL_SESSION* session) {
    const ZnOpenSslApi_& api = ZnOpenSslApi_::instance();
    auto* const sessions = static_cast<ZnSslSessions_*>(api.SSL_get_ex_data(ssl, kExDataIndex));
    // A connection of an earlier context may bring some still.
    if (sessions == nullptr || !sessions->context_ || api.SSL_get_SSL_CTX(ssl) != sessions->context_->get())
        return 0;
    if (sessions->entries_.size() >= kMaxSessions)
        sessions->dropOldest_();
    sessions->entries_.push_back({session, monotonicNowNs() + kLifetimeNs});
    return 1;
}

void ZnSslSessions_::checkTrust(const ZnString& caFile) {
    ZnString errorText;
    if (context_ != nullptr && api_ != nullptr)
        use_(ZnSslTrust_::clientContext(*api_, caFile, &errorText));
}

void ZnSslSessions_::use_(const Context& context) {
    if (context == context_)
        return;
    clear();
    context_ = context;
}

bool ZnSslSessions_::isEmpty(long long nowNs) {
    while (!entries_.empty() && entries_.front().keptUntilNs <= nowNs)
        dropOldest_();
    return entries_.empty();
}

void ZnSslSessions_::dropOldest_() {
    api_->SSL_SESSION_free(entries_.front().session);
    entries_.pop_front();
}

void ZnSslSessions_::clear() {
    while (!entries_.empty())
        dropOldest_();
}
