// Every named result code keeps the number that its callers, logs and exit
// codes rely on. Codes that are errno values of the target take the
// platform's value (EAGAIN is 35 on the target, 11 here); the others are
// the same everywhere.
#include <gtest/gtest.h>

#include <cerrno>

#include "analysis.h"
#include "dstream.h"
#include "fdio.h"
#include "mmr.h"
#include "mpegts.h"
#include "rqs.h"
#include "rtp.h"
#include "timeop.h"
#include "uri.h"
#include "util.h"
#include "webops.h"

TEST(ResultCodes, TheRingsReadOutSaysWaitLostSyncAndNotTs)
{
    EXPECT_EQ(MMR_AGAIN, EAGAIN);
    EXPECT_GT(MMR_AGAIN, 0);
    EXPECT_EQ(MMR_LOSTSYNC, -9);
    EXPECT_EQ(MMR_NOTTS, -14);
    EXPECT_EQ(MMR_NOMEM, 12);
    EXPECT_EQ(MMR_NOSHM, 22);
}

TEST(ResultCodes, TheAnalysisPassEndsTheCaptureWithItsOwn)
{
    EXPECT_EQ(AN_NOPKTSIZE, EAGAIN);
    EXPECT_EQ(AN_LOSTSYNC, -9);
    EXPECT_EQ(AN_NOMEM, -12);
}

TEST(ResultCodes, StreamRecognition)
{
    EXPECT_EQ(TS_NOSYNC, -22);
    EXPECT_EQ(TS_NOSIZE, -3);
    EXPECT_EQ(RTP_SHORTXT, -12);
    EXPECT_EQ(DS_NOTTS, -22);
    EXPECT_EQ(DS_BADRTP, -34);
    EXPECT_EQ(DS_NONEXT, -3);
}

TEST(ResultCodes, RequestPathsAndTheServerSide)
{
    EXPECT_EQ(URI_EP_NOSLASH, 3);
    EXPECT_EQ(URI_EP_TOOLONG, 7);
    EXPECT_EQ(URI_EP_NOADDR, 22);
    EXPECT_EQ(URI_EP_WORDLONG, -22);
    EXPECT_EQ(URI_EP_NOROOM, 34);
    EXPECT_EQ(URI_EP_UNKNOWN, -14);
    EXPECT_EQ(WEB_NOPATH, -3);
    EXPECT_EQ(WEB_QUERYBIG, -7);
    EXPECT_EQ(WEB_URIBIG, 7);
    EXPECT_EQ(WEB_BADPATH, 34);
    EXPECT_EQ(RC_FAVICON, 1028);
    EXPECT_EQ(RC_PING, 1029);
    EXPECT_EQ(RQS_CTX_STAGE, 1);
}

TEST(ResultCodes, FilesProcessesAndTime)
{
    EXPECT_EQ(SF_SRC_NOTREG, 1);
    EXPECT_EQ(SF_DST_NOTSOCK, 2);
    EXPECT_EQ(SF_DST_NOTSTREAM, 3);
    EXPECT_EQ(REDIR_STDOUT, -2);
    EXPECT_EQ(REDIR_STDERR, -3);
    EXPECT_EQ(RFB_TOOBIG, -7);
    EXPECT_EQ(TM_BUSY, -11);
}
