#!/bin/bash
# make_msi.sh FOLDER VERSION MSI: makes a 64-bit, per-machine Windows Installer package from the staged delivery
# FOLDER. An upgrade removes the older version first. The store, the logs and the subscriptions are below
# ProgramData, where the package has no component, so they survive upgrades and removals.
#
# Features: Main (module, service program, tool), Manuals, and Service, which is installed only on request. Public
# properties: INSTALLFOLDER, and SERVICEOPTIONS, more arguments for "vxhost service install". Two builds differ only in
# the package code and the times.
#
# An upgrade leaves the older service registered until the newer one replaces it, so that the older one keeps
# its service if the upgrade is rolled back. Rolling back an installation removes the service, unless it existed
# before. The ServiceInstall table cannot express a delayed start, failure actions, a SID or privileges, so the tool
# registers the service. The ServiceControl table only stops it, so that Windows Installer finds no files in use.
#
# An upgrade removes the older files after Windows Installer has decided what to install. It skips a
# component whose installed key file has a higher version, and any version is higher than none. The removal
# then deletes the skipped file
# (https://learn.microsoft.com/archive/blogs/astebner/why-windows-installer-removes-files-during-a-major-upgrade-if-they-go-backwards-in-version-numbers).
# So the File table contains the version of each file that has one, and each version of the package has its
# own components. The latter also covers files without a version, such as vxhost.exe: the older file is
# removed with its component, so that neither its date nor its hash keeps the newer one out.
set -euo pipefail
folder=$(realpath "$1") version=$2 msi=$(realpath -m "$3")
"$(dirname "$0")/check_tool.sh" "$folder"

# uuid NAME: prints a UUID derived from NAME, so that two builds have the same ones.
uuid() {
  printf 'orvane-service-%s' "$1" | sha1sum | tr a-f A-F |
    sed -E 's/^(.{8})(.{4}).(.{3}).(.{3})(.{12}).*/\1-\2-5\3-A\4-\5/'
}

# Windows Installer compares three parts. Repairs of a build share the product code, so that it does not install
# one beside the other (error 1638).
short=${version%.*}
product=$(uuid "$short")
source=$(mktemp --suffix=.wxs "$folder-XXXXXX")  # wixl looks for files relative to this one
trap 'rm -f "$source"' EXIT
number=0
# wixl supports neither rollback nor commands in a folder: https://learn.microsoft.com/windows/win32/msi/custom-action-in-script-execution-options
# 18 (an installed program) or 34 (a command) + 0x40 (its result is ignored) + 0x100 (rollback) + 0x400 (deferred) +
# 0x800 (as SYSTEM). Windows rolls back the latest action first, so that the installed tool still exists. The
# emulator starts with the earliest.
queries=()
rollback() {
  queries+=("UPDATE \`CustomAction\` SET \`Type\`=$2, \`Source\`='$3' WHERE \`Action\`='$1'")
}
rollback UndoAddService 3426 System64Folder
rollback UndoAddSource 3426 System64Folder
rollback UndoStartService 3410 Tool
# The search for SERVICESTART may run only in the user's process, and the installing one accepts only the properties
# in this list: https://learn.microsoft.com/windows/win32/msi/appsearch-action and .../securecustomproperties
# wixl adds the other two, but cannot add the third.
queries+=("UPDATE \`Property\` SET \`Value\`='WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED;SERVICESTART' \
WHERE \`Property\`='SecureCustomProperties'")

# find_key FILE NAME REST: prints the offset of a structure's UTF-16 name that is followed by padding and REST.
find_key() { LC_ALL=C grep -obUaP "$(sed 's/./&\\0/g' <<<"$2")\\0\\0\\0\\0$3" "$1" | cut -d: -f1; }

# words FILE OFFSET COUNT: prints COUNT 16-bit numbers.
words() { od -An -v --endian=little -tu2 -w2 -j "$2" -N $((2 * $3)) "$1"; }

# version_of FILE: prints "A.B.C.D LANGUAGE[,LANGUAGE...]" from its version resource, or nothing if it has
# none. The layout: https://learn.microsoft.com/windows/win32/menurc/vs-versioninfo and .../var-str.
version_of() {
  local key part
  key=$(find_key "$1" VS_VERSION_INFO '\xBD\x04\xEF\xFE') || return 0
  mapfile -t part < <(words "$1" $((key + 42)) 4)
  printf '%d.%d.%d.%d ' "${part[1]}" "${part[0]}" "${part[3]}" "${part[2]}"
  # Pairs of a language and a code page, preceded by their size in bytes.
  key=$(find_key "$1" Translation '')
  words "$1" $((key + 26)) $(($(words "$1" $((key - 4)) 1) / 2)) | sed -n '1~2p' | tr -d ' ' | paste -sd,
}

# component FILE [ID [CONTENT]]: adds a component with one file. Repairs of a build share it, because one replaces
# another by being installed over it.
component() {
  local id versions
  number=$((number + 1))
  id=${2:-File$number}
  components+=("C$id")
  printf '<Component Id="C%s" Guid="%s" Win64="yes"><File Id="%s" Source="%s" KeyPath="yes"/>%s</Component>\n' \
    "$id" "$(uuid "file-$1-$short")" "$id" "$(basename "$folder")/$1" "${3:-}"
  versions=$(version_of "$folder/$1")
  [[ -n $versions ]] || return 0
  # Only files without a version may have a hash.
  queries+=("UPDATE \`File\` SET \`Version\`='${versions% *}', \`Language\`='${versions#* }' WHERE \`File\`='$id'"
    "DELETE FROM \`MsiFileHash\` WHERE \`File_\`='$id'")
}

# components FILE...: adds a component for each file.
components() {
  local file
  for file in "$@"; do component "$file"; done
}

# references FEATURE-ATTRIBUTES: adds a feature with the components since the previous feature.
references() {
  features+="<Feature $1>"
  local one
  for one in "${components[@]}"; do features+="<ComponentRef Id=\"$one\"/>"; done
  features+="</Feature>"
  components=()
}

components=() features=
{
  cat <<END
<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
<Product Id="$product" Name="OrvaneService" Language="1033" Version="$short" Manufacturer="Vexmoor"
    UpgradeCode="8D2B6A51-5C0E-4F0B-9A3C-6F6E1B1F9C27">
<Package InstallerVersion="200" Compressed="yes" InstallScope="perMachine"
    Description="OrvaneService $version"/>
<MajorUpgrade DowngradeErrorMessage="A newer version is installed. Remove it first: its data stay."/>
<Condition Message="SERVICEOPTIONS must not name the service: its removal knows only the default name."
    >NOT (SERVICEOPTIONS &gt;&lt; "--name")</Condition>
<Property Id="SERVICESTART"><RegistrySearch Id="ServiceStart" Root="HKLM" Type="raw" Win64="yes" Name="Start"
    Key="SYSTEM\CurrentControlSet\Services\OrvaneService"/></Property>
<Media Id="1" Cabinet="files.cab" EmbedCab="yes"/>
<Directory Id="TARGETDIR" Name="SourceDir"><Directory Id="System64Folder"/><Directory Id="ProgramFiles64Folder"><Directory Id="VxFolder" Name="Vx">
<Directory Id="INSTALLFOLDER" Name="OrvaneService">
END
  component OrvaneService.dll Module
  component OrvaneHost.exe Host
  component vxhost.exe Tool
  references 'Id="Main" Title="Module and tool" Level="1" Absent="disallow"'
  cd "$folder"
  components *.md
  for part in docs licences schemas; do
    echo "<Directory Id=\"${part}Folder\" Name=\"$part\">"
    components $part/*
    echo '</Directory>'
  done
  references 'Id="Manuals" Title="Manuals and licences" Level="1"'
  echo '<Directory Id="clientsFolder" Name="clients">'
  component samples/pipe/vx_client.ps1 Client '<ServiceControl Id="Stop" Name="OrvaneService" Stop="both" Wait="no"/>'
  component samples/pipe/vx_client.py
  echo '</Directory>'
  references 'Id="Service" Title="Reference service and clients of its pipe" Level="1000"'
  cat <<END
</Directory></Directory></Directory></Directory>
$features
<CustomAction Id="AddService" FileKey="Tool" Execute="deferred" Impersonate="no" Return="check"
    ExeCommand="service install --replace [SERVICEOPTIONS]"/>
<CustomAction Id="UndoAddService" FileKey="Tool" Execute="deferred" Impersonate="no" Return="ignore"
    ExeCommand='"[System64Folder]sc.exe" delete OrvaneService'/>
<CustomAction Id="UndoAddSource" FileKey="Tool" Execute="deferred" Impersonate="no" Return="ignore"
    ExeCommand='"[System64Folder]reg.exe" delete HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\OrvaneService /f'/>
<CustomAction Id="StartService" FileKey="Tool" Execute="deferred" Impersonate="no" Return="check"
    ExeCommand="service start"/>
<CustomAction Id="UndoStartService" FileKey="Tool" Execute="deferred" Impersonate="no" Return="ignore"
    ExeCommand="service stop"/>
<CustomAction Id="RestartService" FileKey="Tool" Execute="deferred" Impersonate="no" Return="ignore"
    ExeCommand="service start"/>
<CustomAction Id="StopService" FileKey="Tool" Execute="deferred" Impersonate="no" Return="ignore"
    ExeCommand="service stop"/>
<CustomAction Id="DropService" FileKey="Tool" Execute="deferred" Impersonate="no" Return="ignore"
    ExeCommand="service remove --force"/>
<CustomAction Id="DropOlderService" FileKey="Tool" Execute="deferred" Impersonate="no" Return="ignore"
    ExeCommand="service remove --force"/>
<InstallExecuteSequence>
<RemoveExistingProducts Sequence="1510"/>
<Custom Action="StopService" Sequence="1910">!Service=3 AND (&amp;Service=2 OR REMOVE="ALL" OR REINSTALL)</Custom>
<Custom Action="DropService" Sequence="1920">!Service=3 AND (&amp;Service=2 OR REMOVE="ALL") AND NOT UPGRADINGPRODUCTCODE</Custom>
<Custom Action="DropOlderService" Sequence="4090">WIX_UPGRADE_DETECTED AND NOT &amp;Service=3</Custom>
<Custom Action="UndoAddService" Sequence="4095">&amp;Service=3 AND NOT !Service=3 AND NOT SERVICESTART</Custom>
<Custom Action="UndoAddSource" Sequence="4096">&amp;Service=3 AND NOT !Service=3 AND NOT SERVICESTART</Custom>
<Custom Action="AddService" Sequence="4100">&amp;Service=3 AND NOT !Service=3</Custom>
<Custom Action="UndoStartService" Sequence="4190">&amp;Service=3 AND NOT !Service=3</Custom>
<Custom Action="StartService" Sequence="4200">&amp;Service=3 AND NOT !Service=3 AND SERVICESTART &lt;&gt; "#4"</Custom>
<Custom Action="RestartService" Sequence="4210">!Service=3 AND REINSTALL AND SERVICESTART &lt;&gt; "#4"</Custom>
</InstallExecuteSequence>
</Product></Wix>
END
} >"$source"
rm -f "$msi"
wixl -a x64 -o "$msi" "$source"
[[ -s $msi ]]  # wixl reports some failures only in its output
msibuild "$msi" -q "${queries[@]}" || {
  rm -f "$msi"
  exit 1
}
