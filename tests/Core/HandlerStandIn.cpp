// The little of a handler that the table's tests use, until the handlers themselves are here.
#include <Ravelo/NetHandler.h>
#include <Ravelo/NetThread.h>

#include <atomic>

namespace Veltro::Ravelo {

struct SNetHandlerRecord {
    std::atomic<std::int64_t> references{1};
    bool closing = false;
};

CNetHandler::CNetHandler() : m_internal(new SNetHandlerRecord) {}
CNetHandler::~CNetHandler() {
    delete m_internal;
}
int CNetHandler::handle_input(int) {
    return -1;
}
int CNetHandler::handle_output(int) {
    return -1;
}
int CNetHandler::handle_exception(int) {
    return -1;
}
int CNetHandler::handle_input_timeout(int) {
    return -1;
}
int CNetHandler::handle_output_timeout(int) {
    return -1;
}
int CNetHandler::handle_exception_timeout(int) {
    return -1;
}
std::int64_t CNetHandler::handle_timeout(long) {
    return -1;
}
int CNetHandler::handle_close(CNetHandler*) {
    return -1;
}
int CNetHandler::handle_message(long, unsigned int, long) {
    return -1;
}
void CNetHandler::Close() {}
long CNetHandler::GetID() {
    return -102400;
}
void CNetHandler::AddRef() {
    ++m_internal->references;
}
void CNetHandler::DecRef() {
    if (m_internal->references-- != 1 || m_internal->closing) return;
    m_internal->closing = true;
    handle_close(this);
}

int CNetThread::CreateThreadPool(unsigned int, bool) {
    return 0;
}
int CNetThread::DestroyThreadPool() {
    return 0;
}

}  // namespace Veltro::Ravelo
