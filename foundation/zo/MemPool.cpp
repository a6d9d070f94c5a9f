#include "zo/MemPool.h"

namespace zo {

CMemPool::CMemPool(int initialCount, int bufferCapacity, int growBy)
    : TRecyclePool<CMemPoolBuffer>(growBy), m_bufferCapacity(bufferCapacity < 0 ? 0 : bufferCapacity)
{
    addItems(initialCount);
}

CMemPoolBuffer* CMemPool::createItem()
{
    return new CMemPoolBuffer(0, m_bufferCapacity);
}

void CMemPool::prepareForCheckOut(CMemPoolBuffer& buffer)
{
    buffer.clear();
}

} // namespace zo
