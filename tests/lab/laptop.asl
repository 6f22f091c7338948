// A laptop's battery packs, adapter and thermal zone. Their values stand in a page of memory that the kernel leaves
// alone and the laboratory writes. When SEQ changes, whatever hangs on them hears of it at the next look at the zone.
DefinitionBlock ("", "SSDT", 2, "VOLORN", "LAPTOP", 1)
{
    External (\_SB.CPUS.C000, DeviceObj)
    OperationRegion (PAGE, SystemMemory, 0x0F000000, 0x1000)
    Field (PAGE, DWordAcc, NoLock, Preserve)
    {
        SEQ, 32,
        PLUG, 32,
        TEMP, 32, // in tenths of a kelvin
        THR0, 32, // is it there?
        STA0, 32, // 1 discharging, 2 charging
        NOW0, 32, // in mWh
        FUL0, 32,
        THR1, 32,
        STA1, 32,
        NOW1, 32,
        FUL1, 32
    }
    Name (SEEN, Zero)

    Scope (\_SB)
    {
        Device (AC0)
        {
            Name (_HID, "ACPI0003")
            Name (_PCL, Package () { \_SB })
            Method (_PSR) { Return (PLUG) }
        }
        // Design capacity and voltages are constant: nobody asks for them.
        Method (INFO, 1, Serialized)
        {
            Name (TELL, Package () { 0, 0, 0, 1, 12000, 0, 0, 1, 1, "M", "S", "LION", "LAB" })
            TELL [1] = Arg0
            TELL [2] = Arg0
            Return (TELL)
        }
        Method (STAT, 2, Serialized)
        {
            Name (TELL, Package () { 0, 1000, 0, 12000 })
            TELL [0] = Arg0
            TELL [2] = Arg1
            Return (TELL)
        }
        Device (BAT0)
        {
            Name (_HID, EisaId ("PNP0C0A"))
            Name (_UID, 0)
            Method (_STA) { If (THR0) { Return (0x1F) } Return (0x0F) }
            Method (_BIF) { Return (INFO (FUL0)) }
            Method (_BST) { Return (STAT (STA0, NOW0)) }
        }
        Device (BAT1)
        {
            Name (_HID, EisaId ("PNP0C0A"))
            Name (_UID, 1)
            Method (_STA) { If (THR1) { Return (0x1F) } Return (0x0F) }
            Method (_BIF) { Return (INFO (FUL1)) }
            Method (_BST) { Return (STAT (STA1, NOW1)) }
        }
    }

    Scope (\_TZ)
    {
        ThermalZone (TZ0)
        {
            Name (_TZP, 10)
            Name (_CRT, 3832) // 110 °C
            Name (_HOT, 3732) // 100 °C
            Name (_PSV, 3532) // 80 °C
            Name (_TC1, 1)
            Name (_TC2, 1)
            Name (_TSP, 10)
            Name (_PSL, Package () { \_SB.CPUS.C000 })
            Method (_TMP, 0, Serialized)
            {
                If (SEEN != SEQ)
                {
                    SEEN = SEQ
                    Notify (\_SB.AC0, 0x80)
                    Notify (\_SB.BAT0, 0x81)
                    Notify (\_SB.BAT0, 0x80)
                    Notify (\_SB.BAT1, 0x81)
                    Notify (\_SB.BAT1, 0x80)
                }
                Return (TEMP)
            }
        }
    }
}
