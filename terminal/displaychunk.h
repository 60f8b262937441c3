#pragma once

#include <QByteArray>
#include <QDateTime>

// Which way a chunk travelled. The numbers are the ones a chunk is tagged
// with everywhere: 1 received, anything else sent.
enum class ChunkDirection : int {
    Sent = 0,
    Received = 1,
};

// One read or one send as it waits for the view and the data log: the time
// it was queued, its direction and its bytes.
struct DisplayChunk
{
    QDateTime time;
    ChunkDirection direction = ChunkDirection::Received;
    QByteArray bytes;

    bool isReceived() const { return direction == ChunkDirection::Received; }
};
