<?php
while (ob_get_level()) ob_end_flush();
echo "partial\n";
flush();
sleep(20);
echo "late\n";
