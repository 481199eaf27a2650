// The volume library: media geometry, the GPT view that the volume manager
// presents on the raw disk, and the volume manager's own 4096-byte header.
//
// Every function works on caller-owned memory (plexaAcquireHeader also reads
// through a caller-owned descriptor), allocates nothing that outlives the call
// and keeps no state, so concurrent calls on distinct buffers are safe. All
// functions answer 0 for success; failures print one line beginning with
// "plexa: " on standard error and answer -1 (plexaValidateHeader: -1 or -2).
// Buffers are changed in place as far as an operation got before it failed,
// so a caller that must not keep a half-done result works on a copy.
#ifndef QVL_STORAGE_PLEXA_H
#define QVL_STORAGE_PLEXA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct PlexaMediaProperties {
    uint64_t mediaSize;
    uint64_t partitionSpace;
    uint32_t chunkCount;
    uint32_t blockSize;
    uint32_t blockShift;
    uint32_t chunkSize;
    uint32_t chunkShift;
} PlexaMediaProperties;

int plexaInitMediaGeometry(PlexaMediaProperties* properties, uint64_t mediaSize, uint32_t blockSize);
int plexaAdjustPartitionWithType(const PlexaMediaProperties* properties, uint8_t* gptHeader /* 92 bytes */,
                                 uint8_t* entryTable /* 1024 bytes */, int partitionIndex, uint64_t newSize,
                                 const uint8_t type[16] /* big-endian form */);
int plexaAdjustPartition(const PlexaMediaProperties* properties, uint8_t* gptHeader, uint8_t* entryTable,
                         int partitionIndex, uint64_t newSize);
int plexaCreateHeader(const PlexaMediaProperties* properties, uint8_t* header /* 4096 bytes */);
int plexaCreateHeaderWithFlags(const PlexaMediaProperties* properties, uint8_t* header, uint32_t flags0,
                               uint32_t flags1);
int plexaSetHeaderCRC(uint8_t* header);
int plexaValidateHeader(uint8_t* header);
int plexaAcquireHeader(const PlexaMediaProperties* properties, uint8_t* header, int fd);
int plexaCheckHeader(const PlexaMediaProperties* properties, const uint8_t* header);
int plexaRepairHeader(const PlexaMediaProperties* properties, uint8_t* header, int strict);
int plexaChunkContainingPartitionByte(const PlexaMediaProperties* properties, const uint8_t* header,
                                      int partitionIndex, uint64_t offset, uint16_t* chunk);
int plexaChunkContainingPartitionBlock(const PlexaMediaProperties* properties, const uint8_t* header,
                                       int partitionIndex, uint64_t block, uint16_t* chunk);

#ifdef __cplusplus
}
#endif

#endif  // QVL_STORAGE_PLEXA_H
