#ifndef VANTRY_SHARED_QUERY_OBJECT_H
#define VANTRY_SHARED_QUERY_OBJECT_H

#include <memory>
#include <string>
#include <vector>

#include "SQLiteCursor.h"
#include "VantryExport.h"

/// @file
/// The hand-over of results between processes.

/// Hands a whole result to another process, exactly once, through a named shared-memory object.
///
/// The provider stores a cursor and tells the consumer the object's name and size by its own means; the
/// consumer fetches it. The page of the wire format (docs/wire-format.md) describes the object byte by byte,
/// its life, and who may open it.
///
/// @dotfile stored-result.dot "From StoreCursor() to GetCursor()"
///
/// Threads: the three operations may be called from many threads at once, and take no lock but that of the
/// object which GetCursor() fetches; the cursor that one stores must not be moved meanwhile.
///
/// Memory: no operation throws. One that runs out of memory logs it and fails in its own way: -12 or -14,
/// null or an empty text.
class VANTRY_API ISharedQueryObject {
public:
    ISharedQueryObject() = default;
    ISharedQueryObject(const ISharedQueryObject&) = delete;
    ISharedQueryObject& operator=(const ISharedQueryObject&) = delete;
    /// Does nothing.
    virtual ~ISharedQueryObject();

    /// Puts a cursor's rows into a new shared-memory object. Move the cursor to its end first, until
    /// MoveNextStep() returns -34: only then is the number of rows known. A preloaded cursor is at its end.
    ///
    /// Ownership: the object outlives the call and the process; GetCursor() removes it. One that nobody
    /// fetches stays until the system restarts or its name is given to shm_unlink().
    ///
    /// Kept: a cursor stored before its end arrives with its column names and no rows.
    ///
    /// @param pCursor  the result; read, not moved.
    /// @param key      part of the object's name, between "/.vantry_" and the request id; without "/". Two
    ///                 processes that use one key can meet at one name: each provider uses a key of its own,
    ///                 which ends in a character that is no digit, since the id follows at once.
    /// @param name     out: the object's name, such as "/.vantry_tiles7"; empty after -14.
    /// @param size     out: the object's size in bytes, 2098175 at most; 0 after -14.
    /// @retval 0    stored; name and size are to be told to the consumer.
    /// @retval -22  the cursor is null: name and size keep their values.
    /// @retval -14  the cursor is not one of this library's, or was never moved; its rows take more than
    ///              2098171 bytes; the system refuses the object, or has no memory for it.
    static int StoreCursor(std::shared_ptr<ISQLiteCursor> pCursor, const std::string& key, std::string& name,
                           int& size);

    /// Fetches a stored result and removes the object.
    ///
    /// Damaged contents never lead past the object's end: a row cut short is left out, and with it all after
    /// it.
    ///
    /// Threads: waits while another consumer is fetching the same object.
    ///
    /// Kept: a size outside 1 to 2098175 destroys the object, and a fetch that fails removes its name.
    ///
    /// @param name  the object's name, as StoreCursor() told it.
    /// @param size  its size in bytes, as StoreCursor() told it.
    /// @return the cursor, before its first row, with all rows cached and no statement; null when there is no
    ///         such object (one of several consumers that ask at once receives it) or the name is empty, when
    ///         this user may not read and write it or the system refuses, when its first bytes are no result,
    ///         and when memory runs out.
    static std::shared_ptr<ISQLiteCursor> GetCursor(const std::string& name, const int& size);

    /// Tells the last request id issued in this process.
    ///
    /// @return the id; 0 before the first.
    static int GetRequestID();
};

/// One shared-memory object and the bytes of a result: the parts of which the operations above are made.
///
/// Threads: one thread uses an object at a time; only the request counter is shared.
class VANTRY_API CSharedQueryObject : public ISharedQueryObject {
public:
    /// An object without a name and without a segment.
    CSharedQueryObject();
    /// Closes a descriptor that is still open; neither unmaps nor removes the segment.
    ~CSharedQueryObject() override;

    /// @copydoc ISharedQueryObject::StoreCursor
    static int StoreCursor(std::shared_ptr<ISQLiteCursor> pCursor, const std::string& key, std::string& name,
                           int& size);
    /// @copydoc ISharedQueryObject::GetCursor
    static std::shared_ptr<ISQLiteCursor> GetCursor(const std::string& name, const int& size);
    /// @copydoc ISharedQueryObject::GetRequestID
    static int GetRequestID();

    /// Issues a request id, "1" for the first of the process. No two calls give the same one, until the
    /// counter wraps round; other processes count for themselves.
    ///
    /// @return the id in decimal; empty when memory runs out.
    static std::string ProviderNewRequestID();

    /// Creates the object `m_name` (or opens it when it is there), gives it its size and maps it for writing.
    ///
    /// @param size  1 to 2098175 bytes, all of which must fit into the process's limit of locked memory.
    /// @retval 0    mapped at `m_pData`; the descriptor is closed again.
    /// @retval -22  there is a mapping already, the size is another or the name empty; or the system refuses:
    ///              what was opened is removed then, and `m_name` is empty.
    int ShmCreateObject(int size);

    /// Opens the object `m_name`, waits for other consumers, and maps it for reading.
    ///
    /// Another object of this process that has the same segment open counts as one of them, in the same thread
    /// too: the wait then has no end. The lock goes with ShmRemoveObject() and with this object.
    ///
    /// Kept: a failure removes the name, too, unless the name is empty or another consumer was first.
    ///
    /// @param size  1 to 2098175 bytes.
    /// @return the mapping of `size` bytes, to be unmapped by ShmRemoveObject(), or the one
    ///         that is there already; null when there is no such object, for another size or an empty name,
    ///         and when the system refuses.
    char* ShmGetObject(int size);

    /// Unmaps, closes and removes the object. Kept: `m_pData` keeps the address that was unmapped.
    ///
    /// @param size  the mapping's size in bytes.
    /// @retval 0    done.
    /// @retval -22  a size outside 1 to 2098175, or an empty name: nothing was done.
    /// @retval -1   there is no descriptor, or unmapping fails.
    int ShmRemoveObject(int size);

    /// Unmaps `m_size` bytes, which the caller has set; there must be a mapping. The object stays for the other
    /// process.
    ///
    /// @return 0, or -1 when that fails.
    int DetachData();

    /// Writes a cursor's column names and cached rows into `m_buffer`; the page of the wire format tells how.
    ///
    /// @param pCursor  the result; read, not moved.
    /// @retval 0    written: `m_dataSize` bytes.
    /// @retval -22  the cursor is null, or not one of this library's.
    /// @retval -14  it was never moved.
    /// @retval -12  memory ran out, or the bytes are more than an int counts.
    int SerializeCursorData(std::shared_ptr<ISQLiteCursor> pCursor);

    /// Builds a cursor from serialised bytes, which are not trusted.
    ///
    /// @param data  the bytes, borrowed for the call.
    /// @param size  their number.
    /// @return the cursor with all whole rows, before its first one; null for null bytes, a size below 4, and
    ///         when memory runs out.
    static std::shared_ptr<ISQLiteCursor> DeserializeCursorData(char* data, int size);

    /// First part of every object's name: "/.vantry_".
    static const std::string SHM_PREFIX;
    /// The last request id issued in this process. Changed atomically; read it with GetRequestID().
    static int m_requestId;

protected:
    /// The object's name; empty when there is no segment.
    std::string m_name;
    /// Bytes of the segment, for DetachData().
    int m_size = 0;
    /// Bytes in `m_buffer`.
    int m_dataSize = 0;
    /// The mapping, or null. Kept: stale after ShmRemoveObject().
    char* m_pData = nullptr;
    /// The descriptor; 0 at first, -1 after removal. Kept: shows its number after it was closed. One that a
    /// derived class puts here is not closed by this one.
    int m_fd = 0;
    /// The serialised bytes.
    std::vector<char> m_buffer;

private:
    struct VANTRY_LOCAL Source;

    VANTRY_LOCAL void CloseDescriptor();
    VANTRY_LOCAL void AbandonSegment();
    VANTRY_LOCAL static int FindSource(const std::shared_ptr<ISQLiteCursor>& pCursor,
                                       const vantry::LogPlace& place, Source& source);

    /// Whether `m_fd` is open and to be closed here.
    bool m_fdOpen = false;
};

#endif
