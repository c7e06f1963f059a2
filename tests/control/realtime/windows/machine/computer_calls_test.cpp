// What is asked of Windows about this computer, and what stands in for an answer that fails.
#include <gmock/gmock.h>

#include "control/adapters.h"
#include "control/sysinfo.h"
#include "control/system_random.h"
#include "control/windows/firewall_rule.h"
#include "control/windows/handles.h"
#include "control/windows/known_folder.h"
#include "control/windows/wide_text.h"
#include "tests/support/windows/machine/system_calls.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Of = SystemCalls::Of;

std::string list_of(int bytes) {
  return "GetAdaptersAddresses family 2 flags e bytes " + std::to_string(bytes);
}

class ComputerCalls : public testing::Test {
 protected:
  SystemCalls calls_{{Of::Computer, Of::Files}};
};

// ---- Adapters

TEST_F(ComputerCalls, TheAdaptersAreAskedForOnceWithoutWhatIsNotNeeded) {
  EXPECT_FALSE(system_adapters().empty());
  EXPECT_THAT(calls_.take(), ElementsAre(list_of(16'384)));
}

TEST_F(ComputerCalls, AListThatIsLongerIsAskedForAgainWithRoomForIt) {
  const std::size_t count = system_adapters().size();
  calls_.take();
  calls_.answer(list_of(16'384), ERROR_BUFFER_OVERFLOW);
  EXPECT_EQ(system_adapters().size(), count);
  EXPECT_THAT(calls_.take(), ElementsAre(list_of(16'384), list_of(17'384)));
}

TEST_F(ComputerCalls, AListThatGrowsWithEachCallIsNoneAfterTheThird) {
  calls_.fail("GetAdaptersAddresses", ERROR_BUFFER_OVERFLOW);
  EXPECT_THAT(system_adapters(), IsEmpty());
  EXPECT_THAT(calls_.take(), ElementsAre(list_of(16'384), list_of(17'384), list_of(18'384)));
}

TEST_F(ComputerCalls, AnyOtherFailureIsNoListAtOnce) {
  for (const DWORD error : {ERROR_NO_DATA, ERROR_NOT_ENOUGH_MEMORY, ERROR_INVALID_PARAMETER,
                            ERROR_ADDRESS_NOT_ASSOCIATED}) {
    calls_.fail("GetAdaptersAddresses", error);
    EXPECT_THAT(system_adapters(), IsEmpty()) << error;
    EXPECT_THAT(local_ipv4_interfaces(), IsEmpty()) << error;
    EXPECT_THAT(lan_ipv4_addresses(), IsEmpty()) << error;
    EXPECT_EQ(calls_.take().size(), 3u) << error;
  }
}

// ---- The firewall's command

TEST_F(ComputerCalls, TheCommandIsElevatedHiddenAndItsProcessAskedFor) {
  using How = ElevatedEnd::How;
  const std::string line = "ShellExecuteExW runas cmd.exe /c exit 0 show 0 mask 140";
  const auto run = native_firewall_system().run_elevated;
  EXPECT_TRUE(run(L"/c exit 0", 15'000).succeeded());
  EXPECT_THAT(calls_.take(), ElementsAre(line));
  calls_.answer(line, 0);  // and no process
  EXPECT_EQ(run(L"/c exit 0", 15'000).how, How::NoProcess);
  calls_.fail("ShellExecuteExW", ERROR_CANCELLED);
  const ElevatedEnd refused = run(L"/c exit 0", 15'000);
  EXPECT_EQ(refused.how, How::NotStarted);
  EXPECT_EQ(refused.code, DWORD{ERROR_CANCELLED});
}

// ---- Folders

TEST_F(ComputerCalls, ADirectoryIsTheProductsInTheFolderOrNoneWhereThatCannotBeTold) {
  EXPECT_EQ(own_directory(FOLDERID_RoamingAppData).filename(), "Lunderhaze");
  EXPECT_THAT(calls_.take(), ElementsAre("SHGetKnownFolderPath flags 0 own"));
  calls_.fail("SHGetKnownFolderPath", ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(own_directory(FOLDERID_RoamingAppData), "");
}

// ---- Names and numbers

TEST_F(ComputerCalls, TheNameIsThatOfTheNetworkOrTheOlderOneOrNone) {
  wchar_t older[MAX_COMPUTERNAME_LENGTH + 1];
  DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
  ASSERT_TRUE(GetComputerNameW(older, &size));
  calls_.take();
  computer_name_utf8();
  EXPECT_THAT(calls_.take(), ElementsAre("GetComputerNameExW 5"));
  calls_.fail("GetComputerNameExW", ERROR_GEN_FAILURE);
  EXPECT_EQ(computer_name_utf8(), to_utf8(older));
  EXPECT_THAT(calls_.take(), ElementsAre("GetComputerNameExW 5", "GetComputerNameW "));
  calls_.fail("GetComputerNameW", ERROR_GEN_FAILURE);
  EXPECT_EQ(computer_name_utf8(), "Windows PC");
}

TEST_F(ComputerCalls, RandomNumbersAreOfTheSystemsPreferredSource) {
  random_u32();
  EXPECT_THAT(calls_.take(), ElementsAre("BCryptGenRandom the system's bytes 4 flags 2"));
  calls_.fail("BCryptGenRandom", 0xC000'0001);
  char bytes[16];
  EXPECT_FALSE(system_random(bytes, sizeof bytes));
}

}  // namespace
