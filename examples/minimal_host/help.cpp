// SPDX-License-Identifier: Apache-2.0
#include "minimal_host/options.h"

std::string_view HelpText() {
  return R"(NAME
    minimal_host - carry a file's changed blocks through a pipeline into dataset files

SYNOPSIS
    minimal_host [OPTION]... OLD NEW
    minimal_host [OPTION]... --demo

DESCRIPTION
    Compares NEW with OLD block by block and pushes each block that differs into
    a penstock pipeline, in numbered datasets. The datasets leave through the
    transmitter into dataset files below the spool directory. The program then
    plays the target: it acknowledges the datasets, reports them done and
    flushed, and prints the pipeline's four queues after each of these stages.

    At the end it reads the dataset files back, checks every checksum and
    length, applies them to a copy of OLD, and compares the copy with NEW. When
    they are the same, its last line is "identical".

    OLD and NEW may differ in size. Neither is written to.

OPTIONS
    --demo          Make OLD and NEW in a temporary folder, from header files or
                    texts of this machine, instead of naming them. The folder is
                    removed at the end.
    --spool DIR     Write the dataset files below DIR and keep them. DIR is made
                    if it is missing and must be empty. Without this option a
                    temporary folder is used and removed at the end.
    --block BYTES   Compare and push blocks of BYTES: a multiple of 512, at most
                    1048576. Default: 4096.
    --dataset N     Begin a new dataset after N blocks: 1 to 4096. Default: 32.
                    --block times --dataset is at most 67108864 bytes.
    --window N      Answer after N datasets are stored: 1 to 1024. Default: 3.
                    The program holds about N + 1 datasets in memory.
    --log LEVEL     Print the library's log records from LEVEL up to standard
                    error: debug, info, notice or error. Default: none.
    --version       Print the version.
    -h, --help      Print this text.
    --              What follows is no option.

OUTPUT
    One line a stage, for example:

        filled        pipes [RECV 4]  [XMIT 1 .. 3]  [DONE 0:1..4]  [FLUSH ]

    [RECV]  datasets that the pipeline takes in: here 4 has just begun
    [XMIT]  datasets that were handed to the transmitter and not acknowledged
    [DONE]  datasets not reported done; 1: the target is done, 0: it is not
    [FLUSH] datasets reported done and not flushed

EXIT STATUS
    0   The copy is identical to NEW.
    1   Something failed or differs; one line on standard error says what.
    2   The command line is wrong; one line on standard error says why.

ENVIRONMENT
    TMPDIR          Where temporary folders are made. Default: /tmp.

EXAMPLES
    minimal_host --demo
    minimal_host --spool spool --block 65536 disk-monday.img disk-tuesday.img

SEE ALSO
    docs/host.md on writing a host, docs/format.md on the dataset files.
)";
}
