// Every public class of the brickdisk library.
#pragma once

#include "brick/Brick.h"
#include "brick/BrickDataPreparer.h"
#include "brick/BrickDisk.h"
#include "brick/BrickDiskAuxFileBase.h"
#include "brick/BrickDiskChain.h"
#include "brick/BrickDiskError.h"
#include "brick/BrickDiskHeader.h"
#include "brick/BrickDiskLink.h"
#include "brick/BrickDiskLock.h"
#include "brick/BrickDiskStream.h"
#include "brick/BrickDiskStreamWithCache.h"
#include "brick/BrickDiskStreamWithParallelReadAhead.h"
#include "brick/BrickStorer.h"
#include "brick/BrickTree.h"
#include "brick/ParallelReadAheadManager.h"
#include "brick/Version.h"
