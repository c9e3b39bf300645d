// orvo.h - the whole public interface of liborvo in one include.
#pragma once

#include "orvo_object.h"
#include "orvo_handle.h"
#include "orvo_trace.h"
#include "orvo_time.h"
#include "orvo_uuid.h"
#include "orvo_obis.h"
#include "orvo_data.h"
#include "orvo_crc.h"
#include "orvo_membuffer.h"
#include "orvo_record.h"
#include "orvo_recordpath.h"
#include "orvo_sharedmem.h"
#include "orvo_msg.h"
