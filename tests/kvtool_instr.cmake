# End-to-end test of "kvtool instr": run with
#   cmake -DKVTOOL=<kvtool> -DSOURCE=<source dir> -DWORK=<scratch dir> -P kvtool_instr.cmake
file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}")
configure_file("${SOURCE}/resources/example.ins" "${WORK}/example.ins" COPYONLY)
set(failures 0)

# run(<expected exit code> <expected stdout> <expected stderr> args...)
function(run code out err)
  execute_process(COMMAND "${KVTOOL}" instr ${ARGN} WORKING_DIRECTORY "${WORK}"
                  RESULT_VARIABLE rc OUTPUT_VARIABLE stdout ERROR_VARIABLE stderr)
  if(NOT rc STREQUAL code OR NOT stdout STREQUAL out OR NOT stderr STREQUAL err)
    message(SEND_ERROR "kvtool instr ${ARGN}\n  exit ${rc} (want ${code})\n  stdout [${stdout}] (want [${out}])\n"
                       "  stderr [${stderr}] (want [${err}])")
  endif()
endfunction()

# expect_file(<file> <text>): the file holds exactly text (compared as bytes:
# file(READ) would drop CR bytes).
function(expect_file path text)
  file(READ "${path}" actual HEX)
  string(HEX "${text}" wanted)
  if(NOT actual STREQUAL wanted)
    file(READ "${path}" shown)
    message(SEND_ERROR "${path} holds [${shown}], want [${text}]")
  endif()
endfunction()

# check: silent on good files; one "FILE:LINE: message" line per bad one.
file(WRITE "${WORK}/braces.ins" "Korvalis Data File\nA\n{\n}\n}\n")
file(WRITE "${WORK}/header.ins" "# comment\nKorvalis Data\n")
file(WRITE "${WORK}/closing.ins" "Korvalis Data File\nA\n{\n} x\n")
run(0 "" "" check example.ins)
run(1 "" "braces.ins:5: Mismatched braces\nheader.ins:2: Bad header\nclosing.ins:4: Syntax error\nnone.ins: cannot be read: No such file or directory\n"
    check example.ins braces.ins header.ins closing.ins none.ins)
run(0 "" "" check --header "Korvalis Data" header.ins)

# get: by section name, by section value, and absent items.
run(0 "90 um\n" "" get example.ins Scanner/Range)
run(0 "108.0 nm/V\n" "" get example.ins Scanner/Axis=Y/Sensitivity)
run(0 "112.5 nm/V\n" "" get example.ins Scanner/Axis/Sensitivity)
run(0 "a value that goes on over two lines\n" "" get example.ins Notes)
run(1 "" "kvtool instr get: example.ins: no record Scanner/Speed\n" get example.ins Scanner/Speed)
run(1 "" "kvtool instr get: example.ins: no section Axis=Z\n" get example.ins Scanner/Axis=Z/Offset)

# tree: sections end in "/", nameless records are marked.
execute_process(COMMAND "${KVTOOL}" instr tree example.ins WORKING_DIRECTORY "${WORK}" OUTPUT_VARIABLE tree)
string(FIND "${tree}" "Scanner/ = XY\n  Range = 90 um\n  Resolution = 16\n  Axis/ = X\n    Sensitivity = 112.5 nm/V\n" at)
string(FIND "${tree}" "  Calibration/\n    (bare) linear\n    Factor = 1.0025\n" bare)
if(at EQUAL -1 OR bare EQUAL -1)
  message(SEND_ERROR "unexpected tree:\n${tree}")
endif()

# set: change in place, add records and sections, then read back.
run(0 "" "" set example.ins Scanner/Axis=Y/Offset "0.2 V")
run(0 "0.2 V\n" "" get example.ins Scanner/Axis=Y/Offset)
run(0 "-0.25 V\n" "" get example.ins Scanner/Axis=X/Offset)
run(0 "" "" set example.ins Extra/Deep/Tag "a b")
run(0 "a b\n" "" get example.ins Extra/Deep/Tag)
run(0 "" "" set new.ins Top/Value 5)
expect_file("${WORK}/new.ins" "Korvalis Data File\r\n\r\nTop\r\n{\r\n\tValue = 5\r\n}\r\n")
file(READ "${WORK}/braces.ins" before HEX)
run(1 "" "braces.ins:5: Mismatched braces\n" set braces.ins A/B c)
file(READ "${WORK}/braces.ins" after HEX)
if(NOT before STREQUAL after)
  message(SEND_ERROR "set changed a file it could not read")
endif()

# fmt: the canonical form.
file(WRITE "${WORK}/loose.ins" "Korvalis Data File trailing text\n# note\n  A=1\nS = v\n{ ignored\n  B   =  two words  \n}\n")
run(0 "" "" fmt loose.ins)
expect_file("${WORK}/loose.ins" "Korvalis Data File\r\n\r\nA = 1\r\nS = v\r\n{\r\n\tB = two words\r\n}\r\n")
run(1 "" "none.ins: cannot be read: No such file or directory\n" fmt none.ins)
if(EXISTS "${WORK}/none.ins")
  message(SEND_ERROR "fmt created a missing file")
endif()

file(REMOVE_RECURSE "${WORK}")
