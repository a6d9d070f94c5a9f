#include "zo/FileSystemOp.h"

#include "zo/Log.h"

namespace zo {

CFileSystemOp::CFileSystemOp(IDoneListener* listener) : m_listener(listener)
{}

bool CFileSystemOp::waitDone(int timeoutMillis)
{
    return m_done.wait(timeoutMillis);
}

P<CError> CFileSystemOp::getError() const
{
    const std::lock_guard<std::mutex> lock(m_errorMutex);
    return m_error ? m_error->clone() : P<CError>();
}

void CFileSystemOp::complete(const CError* error) noexcept
{
    if (error) {
        P<CError> kept = error->clone();
        const std::lock_guard<std::mutex> lock(m_errorMutex);
        m_error = std::move(kept);
    }
    P<IDoneListener> listener = std::move(m_listener);
    if (listener) {
        try {
            listener->onDone(error);
        } catch (const std::exception& e) {
            logError(e, "A file-system completion listener threw.", String());
        } catch (...) {
            logLine(LogLevel::Error, "A file-system completion listener threw an unknown exception.");
        }
    }
    listener.reset();
    m_done.set();
}

P<IFileSystemOp> postFileSystemOp(CCompletionPool& pool, IDoneListener* listener, std::function<void()> work,
                                  int delayMillis, P<CError> failure)
{
    P<CFileSystemOp> op(new CFileSystemOp(listener));
    pool.post(
        [op, work = std::move(work), failure]() mutable {
            P<CError> error = failure;
            if (!error) {
                try {
                    work();
                } catch (...) {
                    error = currentExceptionToError();
                }
            }
            work = nullptr;
            op->complete(error.get());
        },
        delayMillis);
    return P<IFileSystemOp>(op.get());
}

void checkStoreFileArguments(const char* where, const CURI& file, int size, const IInStream* source)
{
    const char* problem = size < 0 ? "The size is negative."
        : !source                  ? "The source stream is null."
        : file.getName().isEmpty() ? "The path names no file."
                                   : nullptr;
    if (problem)
        throw CInvalidArgError(where, problem, CProps().add("uri", file.toString(true)).add("size", size));
}

P<CError> currentExceptionToError()
{
    try {
        throw;
    } catch (const std::exception& e) {
        return CStdExceptionError::exceptionToError(&e);
    } catch (...) {
        return P<CError>(new CError("Unknown exception."));
    }
}

} // namespace zo
