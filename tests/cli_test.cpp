// The command line, with a daemon whose answers are known and with the real one.
#include <sys/stat.h>

#include "support/fake_daemon.h"
#include "support/programs.h"

namespace ZELT::CliTests {

// Answers one connection after another with the given lines, then is gone. An empty line breaks the
// exchange off.
struct ScriptedDaemon {
  explicit ScriptedDaemon(const std::vector<std::string>& answers)
      : server([this, answers] {
          for (const std::string& answer : answers) {
            const std::string request = AnswerOne(listener, Requoted(answer));
            if (!request.empty()) requests += request + "\n";
          }
          shutdown(listener.Get(), SHUT_RDWR);
        }) {}
  ~ScriptedDaemon() { Requests(); }

  // Ends the daemon and returns what it was asked, with ' for " and a newline after each request.
  std::string Requests() {
    shutdown(listener.Get(), SHUT_RDWR);
    if (server.joinable()) server.join();
    return Requoted(requests);
  }

  const OwnedDescriptor listener = ListenAt(kSocket);
  std::string requests;
  std::thread server;
};

using CliTest = ProgramsTest;

TEST_F(CliTest, TellsWhatIsWrongWithItsWords) {
  const struct {
    const char* words;
    int exit_code;
    const char* error;
  } rows[] = {
      {"issue fastapi @get", 69, "(utils.cpp:62 failed to access domain socket); start it with"},
      {"list", 69, "the daemon cannot be reached; start it"},
      {"revoke fastapi -hoken-that-begins-with-a-dash-as-one-in-64", 69, "utils.cpp:62"},
      {"validate fastapi --ken-that-begins-with-two-dashes-as-one-in-4096 @run", 69,
       "utils.cpp:62"},
      {"issue fastapi '[1,]'", 64, "the payload is not JSON"},
      {"issue fastapi @none", 64, "cannot open none: No such file"},
      {"issue fastapi @/dev/zero", 64, "/dev/zero holds more than 1 MiB"},
      {"revoke fastapi @newline", 64, "the token is empty"},
      {"validate fastapi - -", 64, "only one of TOKEN and PAYLOAD"},
      {"revoke fastapi --json", 64, "--json is not a token; see zelttoken revoke --help"},
      {"validate fastapi t @run more", 64, "not expected: more"},
      {"issue fastapi @get --owner 0", 64, "--owner: 0 is not a number from 1"},
      {"transfer fastapi t 010", 64, "PID: 010 is not a number"},
      {"run fastapi @get true", 64, "-- COMMAND is required"},
      {"run --jsn fastapi @get -- true", 64, "-- COMMAND is required"},
      {"drop", 64, "Either --all or at least one of ID"},
      {"drop --all 3", 64, "Either --all or at least one of ID"},
      {"drop --user '' --orphans", 64, "--user: is empty"},
      {"drop 3 0x4", 64, "ID: 0x4 is not a number"},
      {"", 64, "name a command"},
  };
  for (const auto& row : rows) {
    const std::string words = row.words;
    CheckProgram("exec zelttoken " + words, {row.exit_code, "", row.error});
    Program as_json("exec zelttoken --json " + words);
    EXPECT_EQ(as_json.End(), row.exit_code) << words;
    const std::string text = Value(Requoted(as_json.Output()))["error"].asString();
    EXPECT_EQ("zelttoken: " + text + "\n", as_json.Errors()) << words;
  }
  const std::string both = "--json excludes --prometheus";
  CheckProgram("zelttoken status --json --prometheus",
               {64, "{'error':'" + both + "; see zelttoken status --help','success':false}\n", ""});
}

TEST_F(CliTest, SaysWhoseSocketItIs) {
  WriteFile(kSocket, "");
  if (chown(kSocket, 4001, 4001) != 0) GTEST_SKIP() << "no other user here";
  CheckProgram("zelttoken status",
               {69, "", "/tmp/zelttokenmgr.sock belongs to alice, not to the daemon"});
}

const std::string kIssued = "{'success':true,'token':'T'}";
const std::string kIssueRequest = "{'payload':" + kGet + ",'service':'fastapi','type':'issue'}\n";
const std::string kRevokeRequest =
    "{'payload':null,'service':'fastapi','token':'T','type':'revoke'}\n";

TEST_F(CliTest, AsksTheDaemonAndTakesBackWhatNobodyWouldOwn) {
  const std::string token =
      "{'age':7200,'alive':true,'grants':1,'id':3,'owner':'a\\u001bb',"
      "'pid':12,'requester':'alice','service':'fastapi'}";
  const std::string orphan =
      "{'age':59,'alive':false,'grants':12,'id':10,'owner':'',"
      "'pid':1234567,'requester':'bob','service':'taskmanager'}";
  const std::string status =
      "'requests':{'issue':{'done':9,'refused':1},'list':{'done':0,'refused':0}},"
      "'service_times':{'bounds_us':[1,250],'counts':[5,4,1]},"
      "'store':{'size':4096,'tokens':2,'used':2048},'success':true,'uptime':86400,";
  const std::string tail = "'version':'1.2','workers':{'deaths':4,'running':2}";
  const std::string alice =
      "{'bytes':5,'service':'fastapi','tokens':1,'uid':4001,'user':'al\\'\\\\'}";
  const std::string bob = "{'bytes':6,'service':'fastapi','tokens':2,'uid':4002,'user':'bob'}";
  const std::vector<std::string> pages = {
      "{" + status + tail + ",'usage':[" + alice + "],'next':4001}",
      "{" + status + tail + ",'usage':[" + bob + "]}"};
  const struct {
    const char* command;
    std::vector<std::string> answers;
    Expected expected;
    std::string requests;
  } rows[] = {
      {"zelttoken list --user alice --service fastapi --orphans",
       {"{'success':true,'tokens':[" + token + "],'next':3}",
        "{'success':true,'tokens':[" + orphan + "]}"},
       {0,
        "ID  SERVICE      USER   PID      OWNER  STATE   AGE  GRANTS\n"
        "3   fastapi      alice  12       a?b    alive   2h   1\n"
        "10  taskmanager  bob    1234567         orphan  59s  12\n",
        ""},
       "{'orphans':true,'service':'fastapi','type':'list','user':'alice'}\n"
       "{'after':3,'orphans':true,'service':'fastapi','type':'list','user':'alice'}\n"},
      {"zelttoken list --json",
       {"{'success':true,'tokens':[]}"},
       {0, "{'success':true,'tokens':[]}\n", ""},
       "{'type':'list'}\n"},
      {"zelttoken list", {kRefused}, {1, "", "only root and the daemon"}, "{'type':'list'}\n"},
      {"zelttoken list",
       {"{'success':true,'next':3}", "{'success':true,'next':3}"},
       {69, "", "endless pages"},
       "{'type':'list'}\n{'after':3,'type':'list'}\n"},
      {"zelttoken drop 3 18446744073709551615 --orphans",
       {"{'success':true,'dropped':1,'next':3}", "{'success':true,'dropped':1}"},
       {0, "2 tokens dropped\n", ""},
       "{'ids':[3,18446744073709551615],'orphans':true,'type':'drop'}\n"
       "{'after':3,'ids':[3,18446744073709551615],'orphans':true,'type':'drop'}\n"},
      {"zelttoken drop --json --all",
       {"{'success':true,'dropped':0}"},
       {0, "{'dropped':0,'success':true}\n", ""},
       "{'all':true,'type':'drop'}\n"},
      {"zelttoken drop --user 7",
       {"{'success':true,'dropped':12,'next':3}", ""},
       {69, "", "12 tokens had already been dropped"},
       "{'type':'drop','user':'7'}\n{'after':3,'type':'drop','user':'7'}\n"},
      {"zelttoken status --json",
       pages,
       {0, "{" + status + "'usage':[" + alice + "," + bob + "]," + tail + "}\n", ""},
       "{'type':'status'}\n{'after':4001,'type':'status'}\n"},
      {"zelttoken status",
       pages,
       {0,
        "version       1.2\nuptime        1d\nworkers       2\ndeaths        4\n"
        "tokens        2\nstore         2 KiB of 4 KiB\n"
        "service time  half at most 1 us, 99 % longer\n\n"
        "REQUEST  DONE  REFUSED\nissue    9     1\nlist     0     0\n\n"
        "USER  UID   SERVICE  TOKENS  BYTES\n"
        "al'\\  4001  fastapi  1       5\nbob   4002  fastapi  2       6\n",
        ""},
       "{'type':'status'}\n{'after':4001,'type':'status'}\n"},
      {"zelttoken issue fastapi @get --owner 4194304",
       {kIssued, kRefused, kDone},
       {1, "", "refused to transfer the token"},
       kIssueRequest + "{'payload':4194304,'service':'fastapi','token':'T','type':'transfer'}\n" +
           kRevokeRequest},
      {"zelttoken issue fastapi @get >/dev/full",
       {kIssued, kDone},
       {1, "", "standard output"},
       kIssueRequest + kRevokeRequest},
      {"zelttoken issue fastapi @get", {kDone}, {69, "", "without a token"}, kIssueRequest},
      {"zelttoken issue fastapi @get", {"{"}, {69, "", "failed (utils.cpp:72"}, kIssueRequest},
      {"zelttoken run fastapi @get -- sh -c 'exit 3'",
       {kIssued, "", kDone},
       {3, "", ""},
       kIssueRequest + kRevokeRequest + kRevokeRequest},
      {"zelttoken run fastapi @get -- sh -c 'exit 3'",
       {kIssued},
       {3, "", "the token stays valid until root drops it"},
       kIssueRequest},
  };
  for (const auto& row : rows) {
    ScriptedDaemon daemon(row.answers);
    CheckProgram(row.command, row.expected);
    EXPECT_EQ(daemon.Requests(), row.requests) << row.command;
  }
  const ScriptedDaemon daemon(pages);
  Program metrics("zelttoken status --prometheus");
  EXPECT_EQ(metrics.End(), 0);
  for (const char* line :
       {"# HELP zelttokenmgrd_requests_total Requests by type and outcome.\n"
        "# TYPE zelttokenmgrd_requests_total counter\n"
        "zelttokenmgrd_requests_total{type=\"issue\",outcome=\"done\"} 9\n",
        "_seconds_bucket{le=\"1e-06\"} 5\n"
        "zelttokenmgrd_request_duration_seconds_bucket{le=\"0.00025\"} 9\n"
        "zelttokenmgrd_request_duration_seconds_bucket{le=\"+Inf\"} 10\n"
        "zelttokenmgrd_request_duration_seconds_count 10\n",
        "\nzelttokenmgrd_uptime_seconds 86400\n", "\nzelttokenmgrd_store_used_bytes 2048\n",
        "_user_bytes{user=\"al\\\"\\\\\",uid=\"4001\",service=\"fastapi\"} 5\n",
        "_user_tokens{user=\"bob\",uid=\"4002\",service=\"fastapi\"} 2\n"}) {
    EXPECT_NE(metrics.Output().find(line), std::string::npos) << line << "\n" << metrics.Output();
  }
}

TEST_F(CliTest, RunsACommandAndGivesItsTokenBack) {
  const std::pair<const char*, int> rows[] = {
      {"sh -c 'exit 7'", 7},
      {"/none", 127},
      {"/tmp", 126},
      {"grep -q 'SigBlk:.0*$' /proc/self/status", 0},
      {"sh -c 'kill -KILL $$'", 128 + SIGKILL},
      {"sh -c 'kill -PWR $PPID; while :; do sleep 0.01; done'", 128 + SIGPWR},
      {"sh -c 'trap \"exit 3\" TERM; kill -TERM $PPID; while :; do sleep 0.01; done'", 3},
      {"sh -c '[ \"$0 $1 $ZELT_TOKEN\" = \"[a,b] --json T\" ]' '[a,b]' --json", 0},
  };
  for (const auto& [command, exit_code] : rows) {
    ScriptedDaemon daemon({kIssued, kDone});
    CheckProgram(std::string("exec zelttoken run fastapi @get -- ") + command, {exit_code, "", ""});
    EXPECT_EQ(daemon.Requests(), kIssueRequest + kRevokeRequest) << command;
  }
  const ScriptedDaemon daemon({kIssued, kDone, kIssued, kDone});
  CheckProgram(
      "bash -c 'trap \"\" CHLD; exec zelttoken run --json fastapi @get -- sh -c \"exit 5\"'",
      {5, "{'exit':5,'success':true}\n", ""});

  mkfifo("/tmp/payload", 0600);
  Program early("exec zelttoken run fastapi @payload -- sh -c 'while :; do sleep 0.01; done'");
  std::ofstream payload("/tmp/payload");  // waits until the other end is open
  kill(early.pid, SIGTERM);
  payload << Requoted(kGet) << std::flush;
  payload.close();
  EXPECT_EQ(early.End(), 128 + SIGTERM);
}

TEST_F(CliTest, TakesATokenThroughItsLife) {
  const Daemon daemon;
  Program life(R"(
    ask() { echo "$1:"; zelttoken "$@" 2>/dev/null || echo "exit $?"; }
    zelttoken issue fastapi @get --owner $$ >token
    ask validate fastapi @token @run
    ask validate --json fastapi - '{"api":"Demo.Item","method":"set","runner":"root"}' <token
    ask validate taskmanager @token '{}'
    ask revoke fastapi @token
    ask transfer fastapi @token $$
    ask issue fastapi @get --owner 4194304
    ask run fastapi @get -- sh -c 'zelttoken validate fastapi - @run <<E
$ZELT_TOKEN
E'
    zelttoken issue fastapi @get >/dev/null
    ask list --json --service taskmanager
    ask drop --user root --orphans
    zelttoken status --prometheus | grep -c '^zelttokenmgrd_user_tokens{user="root".* 1$'
    exec zelttoken revoke fastapi @token --json)");
  EXPECT_EQ(life.End(), 0) << life.Errors();
  EXPECT_EQ(life.Output(),
            "validate:\npermitted\n"
            "validate:\n{\"permitted\":false,\"success\":true}\nexit 1\n"
            "validate:\nexit 1\nrevoke:\nexit 1\ntransfer:\nexit 1\nissue:\nexit 1\n"
            "run:\npermitted\nlist:\n{\"success\":true,\"tokens\":[]}\n"
            "drop:\n1 token dropped\n1\n{\"success\":true}\n");
}

}  // namespace ZELT::CliTests
